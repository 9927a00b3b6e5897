#include "memguard.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

constexpr char kFill = '#';

// A destination of `size` bytes with a guard byte behind it.
class Destination {
public:
    explicit Destination(size_t size) : bytes_(size + 1, kFill) {}
    ~Destination() { EXPECT_EQ(bytes_.back(), kFill) << "wrote past the destination"; }
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    char* data() { return bytes_.data(); }
    std::string Text() const { return bytes_.c_str(); }
    std::string Bytes() const { return bytes_.substr(0, bytes_.size() - 1); }

private:
    std::string bytes_;
};

int Format(char* dest, size_t destMax, size_t count, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

int Format(char* dest, size_t destMax, size_t count, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int result = vsnprintf_s(dest, destMax, count, fmt, args);
    va_end(args);
    return result;
}

const char* const kNoFormat = nullptr;

TEST(MemsetSTest, SetsCountBytes)
{
    Destination dest(4);
    EXPECT_EQ(memset_s(dest.data(), 4, 'x', 3), 0);
    EXPECT_EQ(dest.Bytes(), "xxx#");
}

TEST(MemsetSTest, SetsTheWholeDestination)
{
    Destination dest(4);
    EXPECT_EQ(memset_s(dest.data(), 4, 0, 4), 0);
    EXPECT_EQ(dest.Bytes(), std::string(4, '\0'));
}

TEST(MemsetSTest, CountOfZeroChangesNothing)
{
    Destination dest(4);
    EXPECT_EQ(memset_s(dest.data(), 4, 'x', 0), 0);
    EXPECT_EQ(memset_s(dest.data(), 0, 'x', 0), 0);
    EXPECT_EQ(dest.Bytes(), "####");
}

TEST(MemsetSTest, NullDestinationFails)
{
    EXPECT_NE(memset_s(nullptr, 4, 0, 4), 0);
    EXPECT_NE(memset_s(nullptr, 0, 0, 0), 0);
}

TEST(MemsetSTest, CountAboveTheDestinationFailsAndSetsOnlyTheDestination)
{
    Destination dest(4);
    EXPECT_NE(memset_s(dest.data(), 4, 'x', 5), 0);
    EXPECT_EQ(dest.Bytes(), "xxxx");
}

TEST(MemsetSTest, AbsurdDestinationSizeFailsAndChangesNothing)
{
    Destination dest(4);
    EXPECT_NE(memset_s(dest.data(), SIZE_MAX, 'x', 4), 0);
    EXPECT_NE(memset_s(dest.data(), SIZE_MAX, 'x', SIZE_MAX), 0);
    EXPECT_EQ(dest.Bytes(), "####");
}

TEST(SprintfSTest, ReturnsTheLength)
{
    Destination dest(16);
    EXPECT_EQ(sprintf_s(dest.data(), 16, "%s-%d", "ab", 7), 4);
    EXPECT_EQ(dest.Text(), "ab-7");
}

TEST(SprintfSTest, EmptyTextIsASuccess)
{
    Destination dest(1);
    EXPECT_EQ(sprintf_s(dest.data(), 1, "%s", ""), 0);
    EXPECT_EQ(dest.Text(), "");
}

TEST(SprintfSTest, TextThatJustFits)
{
    Destination dest(5);
    EXPECT_EQ(sprintf_s(dest.data(), 5, "%s", "abcd"), 4);
    EXPECT_EQ(dest.Text(), "abcd");
}

TEST(SprintfSTest, TextThatDoesNotFitFailsAndLeavesAnEmptyText)
{
    Destination dest(5);
    EXPECT_EQ(sprintf_s(dest.data(), 5, "%s", "abcde"), -1);
    EXPECT_EQ(dest.Text(), "");
    Destination one(1);
    EXPECT_EQ(sprintf_s(one.data(), 1, "%s", "a"), -1);
    EXPECT_EQ(one.Text(), "");
}

TEST(SprintfSTest, NullArgumentsAndNoRoomFail)
{
    Destination dest(4);
    EXPECT_EQ(sprintf_s(nullptr, 4, "%d", 1), -1);
    EXPECT_EQ(sprintf_s(dest.data(), 0, "%d", 1), -1);
    EXPECT_EQ(dest.Bytes(), "####") << "a destination without room is not written";
    EXPECT_EQ(sprintf_s(dest.data(), 4, kNoFormat), -1);
    EXPECT_EQ(dest.Text(), "");
}

TEST(SprintfSTest, TextThatCannotBeEncodedFails)
{
    ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);
    Destination dest(16);
    EXPECT_EQ(sprintf_s(dest.data(), 16, "ab%lc", static_cast<wint_t>(0x20AC)), -1);
    EXPECT_EQ(dest.Text(), "");
}

TEST(VsnprintfSTest, ReturnsTheLength)
{
    Destination dest(16);
    EXPECT_EQ(Format(dest.data(), 16, 15, "%s-%d", "ab", 7), 4);
    EXPECT_EQ(dest.Text(), "ab-7");
}

TEST(VsnprintfSTest, ExactlyCountCharactersFit)
{
    Destination dest(16);
    EXPECT_EQ(Format(dest.data(), 16, 3, "%s", "abc"), 3);
    EXPECT_EQ(dest.Text(), "abc");
}

TEST(VsnprintfSTest, MoreThanCountCharactersFailAndLeaveTheFirst)
{
    Destination dest(16);
    EXPECT_EQ(Format(dest.data(), 16, 3, "%s", "abcd"), -1);
    EXPECT_EQ(dest.Text(), "abc");
}

TEST(VsnprintfSTest, CountOneBelowTheDestination)
{
    Destination fits(4);
    EXPECT_EQ(Format(fits.data(), 4, 3, "%s", "abc"), 3);
    EXPECT_EQ(fits.Text(), "abc");
    Destination cut(4);
    EXPECT_EQ(Format(cut.data(), 4, 3, "%s", "abcd"), -1);
    EXPECT_EQ(cut.Text(), "abc");
}

TEST(VsnprintfSTest, TextThatDoesNotFitTheDestinationLeavesAnEmptyText)
{
    Destination dest(4);
    EXPECT_EQ(Format(dest.data(), 4, 4, "%s", "abcd"), -1);
    EXPECT_EQ(dest.Text(), "");
    Destination unlimited(4);
    EXPECT_EQ(Format(unlimited.data(), 4, SIZE_MAX, "%s", "abcdefgh"), -1);
    EXPECT_EQ(unlimited.Text(), "");
    Destination fits(4);
    EXPECT_EQ(Format(fits.data(), 4, SIZE_MAX, "%s", "abc"), 3);
    EXPECT_EQ(fits.Text(), "abc");
}

TEST(VsnprintfSTest, CountOfZeroAllowsOnlyTheEmptyText)
{
    Destination dest(4);
    EXPECT_EQ(Format(dest.data(), 4, 0, "%s", ""), 0);
    EXPECT_EQ(Format(dest.data(), 4, 0, "%s", "a"), -1);
    EXPECT_EQ(dest.Text(), "");
}

TEST(VsnprintfSTest, TextThatCannotBeEncodedFails)
{
    ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);
    Destination dest(16);
    EXPECT_EQ(Format(dest.data(), 16, 8, "ab%lc", static_cast<wint_t>(0x20AC)), -1);
    EXPECT_EQ(dest.Text(), "");
}

TEST(VsnprintfSTest, NullArgumentsAndNoRoomFail)
{
    Destination dest(4);
    EXPECT_EQ(Format(nullptr, 4, 3, "%d", 1), -1);
    EXPECT_EQ(Format(dest.data(), 0, 3, "%d", 1), -1);
    EXPECT_EQ(dest.Bytes(), "####") << "a destination without room is not written";
    EXPECT_EQ(Format(dest.data(), 4, 3, kNoFormat), -1);
    EXPECT_EQ(dest.Text(), "");
}

}  // namespace

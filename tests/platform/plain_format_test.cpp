#include "plain_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// What one formatting left behind: its result, and the whole of a memory that it may have written to.
struct Outcome {
    int result;
    std::string memory;

    bool operator==(const Outcome& other) const { return result == other.result && memory == other.memory; }
};

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome)
{
    return stream << outcome.result << " \"" << outcome.memory.c_str() << '"';
}

using Formatter = int (*)(char*, size_t, const char*, va_list);

Outcome FormatWith(Formatter formatter, size_t size, const char* fmt, ...)
{
    std::string memory(size + 1, '#');  // the last one stays
    va_list args;
    va_start(args, fmt);
    const int result = formatter(memory.data(), size, fmt, args);
    va_end(args);
    // What follows the terminating zero is undefined.
    const size_t end = memory.find('\0');
    return {result, end < size ? memory.substr(0, end) + memory.back() : memory};
}

int Vsnprintf(char* dest, size_t size, const char* fmt, va_list args)
{
    return vsnprintf(dest, size, fmt, args);
}

// The same arguments for both, at every size from 1 to beyond the text's.
#define EXPECT_AS_VSNPRINTF(...) \
    do { \
        for (size_t size = 1; size < 64; ++size) { \
            EXPECT_EQ(FormatWith(platform::Format, size, __VA_ARGS__), FormatWith(Vsnprintf, size, __VA_ARGS__)) \
                << "size " << size; \
        } \
    } while (false)

TEST(PlainFormat, TextWithoutConversionsIsCopied)
{
    EXPECT_AS_VSNPRINTF("a line");
}

TEST(PlainFormat, AnEmptyFormatGivesAnEmptyText)
{
    const char* const empty = "";
    EXPECT_AS_VSNPRINTF(empty, 0);
}

TEST(PlainFormat, TextsAreInsertedWhereTheyStand)
{
    EXPECT_AS_VSNPRINTF("%s", "whole");
    EXPECT_AS_VSNPRINTF("[%s]%s,", "", "behind an empty one");
}

TEST(PlainFormat, NumbersOfBothSignsAndAllLengthsArePrinted)
{
    for (const int number : {0, 9, 10, -1, -10, 65535, INT_MAX, INT_MIN}) {
        EXPECT_AS_VSNPRINTF("%d|%u", number, static_cast<unsigned>(number));
    }
}

TEST(PlainFormat, OtherConversionsGoToTheCLibrary)
{
    EXPECT_AS_VSNPRINTF("%5d,%-4s,%zu,%#x,%%", 42, "ab", size_t{7}, 255U);
}

TEST(PlainFormat, ArgumentsBeforeAnotherConversionAreReadAgain)
{
    EXPECT_AS_VSNPRINTF("%s:%d:%lld", "first", -2, 1LL << 40);
}

TEST(PlainFormat, ANullTextIsPrintedAsTheCLibraryDoes)
{
    const char* const none = nullptr;
    EXPECT_AS_VSNPRINTF("<%s>", none);
}

TEST(PlainFormat, APercentSignAtTheEndIsTheCLibrarysMatter)
{
    const char* const broken = "cut %";
    EXPECT_AS_VSNPRINTF(broken, 1);
}

}  // namespace

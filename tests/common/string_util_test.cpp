#include "string_util.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "fault.h"
#include "process.h"

namespace {

using namespace std::literals;
using gaktest::ChildProcess;
using gaktest::CountingHook;

const char kWhiteSpace[] = " \t\n\v\f\r";

std::string Replaced(std::string s, const std::string& from, const std::string& to)
{
    qel::ReplaceAllSubStrDistinct(s, from, to);
    return s;
}

TEST(Trim, RemovesWhiteSpaceAtItsEnds)
{
    const struct {
        std::string text;
        std::string trim;
        std::string trimHead;
        std::string trimTail;
    } rows[] = {
        {"  ab \t\n", "ab", "ab \t\n", "  ab"}, {"a b\tc", "a b\tc", "a b\tc", "a b\tc"},
        {" a b ", "a b", "a b ", " a b"},       {"x", "x", "x", "x"},
        {" \0 "s, "\0"s, "\0 "s, " \0"s},
    };
    for (const auto& row : rows) {
        std::string all = row.text;
        std::string head = row.text;
        std::string tail = row.text;
        EXPECT_EQ(qel::Trim(all), row.trim);
        EXPECT_EQ(qel::LTrim(head), row.trimHead);
        EXPECT_EQ(qel::RTrim(tail), row.trimTail);
    }
}

TEST(Trim, BlanksAndTabsOnlyBecomeEmpty)
{
    for (auto trim : {qel::Trim, qel::LTrim, qel::RTrim}) {
        std::string s = " \t \t\t ";
        EXPECT_EQ(trim(s), "");
    }
}

TEST(Trim, EmptyTextStaysEmpty)
{
    for (auto trim : {qel::Trim, qel::LTrim, qel::RTrim}) {
        std::string s;
        EXPECT_EQ(trim(s), "");
    }
}

TEST(Trim, WorksInPlaceAndReturnsItsArgument)
{
    for (auto trim : {qel::Trim, qel::LTrim, qel::RTrim}) {
        std::string s = " a ";
        EXPECT_EQ(&trim(s), &s);
        EXPECT_LT(s.size(), 3U);
    }
}

TEST(Trim, ExactlyTheSixWhiteSpaceBytesCount)
{
    for (int byte = 0; byte < 256; ++byte) {
        const auto c = static_cast<char>(byte);
        const bool isSpace = std::string(kWhiteSpace).find(c) != std::string::npos;
        std::string s = std::string(1, c) + "a" + std::string(1, c);
        const std::string before = s;
        EXPECT_EQ(qel::Trim(s), isSpace ? "a" : before) << "byte " << byte;
    }
}

TEST(ReplaceAllSubStrDistinct, ReplacesFromLeftToRight)
{
    const struct {
        std::string text;
        std::string from;
        std::string to;
        std::string result;
    } rows[] = {
        {"one two one", "one", "1", "1 two 1"},
        {"aaa", "aa", "b", "ba"},
        {"aaaa", "aa", "b", "bb"},
        {"abc", "x", "y", "abc"},
        {"abcabc", "abc", "", ""},
        {"", "a", "b", ""},
        {"ab", "abc", "x", "ab"},
        {"a\0a"s, "\0"s, "-", "a-a"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Replaced(row.text, row.from, row.to), row.result) << row.text;
    }
}

TEST(ReplaceAllSubStrDistinct, ResultIsNotScannedAgain)
{
    EXPECT_EQ(Replaced("aab", "ab", "b"), "ab");
    EXPECT_EQ(Replaced("aXXbb", "X", ""), "abb");
    EXPECT_EQ(Replaced("a%%b", "%b", "b"), "a%b");
}

TEST(ReplaceAllSubStrDistinct, ReplacementThatHoldsThePatternEnds)
{
    EXPECT_EQ(Replaced("a", "a", "aa"), "aa");
    EXPECT_EQ(Replaced("aba", "a", "aa"), "aabaa");
}

// Run apart with a second of processor time: an insertion that never ends would take the machine's memory with it.
bool EndsWith(const std::string& text, const std::string& to, const std::string& result)
{
    ChildProcess child([&] {
        const rlimit oneSecond{1, 1};
        EXPECT_EQ(setrlimit(RLIMIT_CPU, &oneSecond), 0);
        EXPECT_EQ(Replaced(text, "", to), result);
        return 0;
    });
    return child.WaitExit(10s).ExitedWith(0);
}

TEST(ReplaceAllSubStrDistinct, EmptyPatternInsertsUntilThePositionPassesTheEnd)
{
    EXPECT_TRUE(EndsWith("ab", "X", "XXXab"));
    EXPECT_TRUE(EndsWith("ab", "XY", "XYXYab"));
    EXPECT_TRUE(EndsWith("ab", "XYZ", "XYZab"));
    EXPECT_TRUE(EndsWith("", "X", "X"));
}

TEST(ReplaceAllSubStrDistinct, EmptyPatternAndReplacementChangeNothing)
{
    EXPECT_TRUE(EndsWith("ab", "", "ab"));
}

// All texts of 0 to `longest` letters, each a or b.
std::vector<std::string> TextsUpTo(size_t longest)
{
    std::vector<std::string> texts{""};
    for (size_t first = 0, length = 0; length < longest; ++length) {
        const size_t end = texts.size();
        for (; first < end; ++first) {
            texts.push_back(texts[first] + 'a');
            texts.push_back(texts[first] + 'b');
        }
    }
    return texts;
}

void ReplaceInPlace(std::string& s, const std::string& from, const std::string& to)
{
    for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) {
        s.replace(at, from.size(), to);
    }
}

TEST(ReplaceAllSubStrDistinct, ResultIsThatOfReplacingInPlace)
{
    const std::vector<std::string> parts = TextsUpTo(3);
    for (const std::string& text : TextsUpTo(7)) {
        for (const std::string& from : parts) {
            for (const std::string& to : parts) {
                std::string expected = text;
                if (!from.empty()) {
                    ReplaceInPlace(expected, from, to);
                    ASSERT_EQ(Replaced(text, from, to), expected) << text << ' ' << from << ' ' << to;
                }
            }
        }
    }
}

struct MovesBytes {
    static constexpr const char* kLibrary = "libstdc++.so.6";
    using Signature = void*(void*, const void*, size_t);
};
struct Memmove : MovesBytes {
    static constexpr const char* kSymbol = "memmove";
};
struct Memcpy : MovesBytes {
    static constexpr const char* kSymbol = "memcpy";
};

// Bytes that are moved are counted; each step of a quadratic one moves all that follows.
TEST(ReplaceAllSubStrDistinct, MovesEachByteOfALongTextAFewTimes)
{
    constexpr size_t kPatterns = 100000;
    std::string text;
    std::string expected;
    for (size_t i = 0; i < kPatterns; ++i) {
        text += "%0a";
        expected += "%%0a";
    }
    CountingHook<Memmove> moves;
    CountingHook<Memcpy> copies;
    size_t moved = 0;
    const auto count = [&moved](uint64_t, void*, const void*, size_t size) {
        moved += size;
        return std::optional<void*>();
    };
    moves.OnCall(count);
    copies.OnCall(count);
    const std::string replaced = qel::RemoveEscapeChar(text);
    moves.Reset();
    copies.Reset();
    EXPECT_TRUE(replaced == expected);
    EXPECT_GE(moved, expected.size()) << "not all were counted";
    EXPECT_LT(moved, 10 * expected.size());
}

TEST(ReplaceAllSubStrDistinct, PatternOrReplacementMayBeTheTextItself)
{
    std::string s = "ab";
    qel::ReplaceAllSubStrDistinct(s, s, "xyz");
    EXPECT_EQ(s, "xyz");
    s = "abab";
    qel::ReplaceAllSubStrDistinct(s, "b", s);
    EXPECT_EQ(s, "aababaabab");
}

TEST(RemoveEscapeChar, ControlCharactersBecomeTwoCharacters)
{
    EXPECT_EQ(qel::RemoveEscapeChar("\a\b\t\n\v\f\r"), R"(\a\b\t\n\v\f\r)");
    EXPECT_EQ(qel::RemoveEscapeChar("a\nb%0a"), R"(a\nb%%0a)");
}

TEST(RemoveEscapeChar, AllOtherBytesAreCopiedUnchanged)
{
    for (int byte = 0; byte < 256; ++byte) {
        if (byte < 7 || byte > 13) {
            const std::string text(3, static_cast<char>(byte));
            EXPECT_EQ(qel::RemoveEscapeChar(text), text) << "byte " << byte;
        }
    }
}

TEST(RemoveEscapeChar, LowerCasePercentSequencesAreDoubled)
{
    EXPECT_EQ(qel::RemoveEscapeChar("%0a"), "%%0a");
    EXPECT_EQ(qel::RemoveEscapeChar("%0d"), "%%0d");
    EXPECT_EQ(qel::RemoveEscapeChar("%0a%0d%0a"), "%%0a%%0d%%0a");
    EXPECT_EQ(qel::RemoveEscapeChar("%%0a"), "%%%0a");
}

TEST(RemoveEscapeChar, OtherPercentSequencesStay)
{
    const std::string text = "%0A %0D %0b %0 % %% 0a 0d";
    EXPECT_EQ(qel::RemoveEscapeChar(text), text);
}

TEST(RemoveEscapeChar, LeavesItsArgumentAlone)
{
    const std::string text = "a\n%0a";
    EXPECT_EQ(qel::RemoveEscapeChar(""), "");
    qel::RemoveEscapeChar(text);
    EXPECT_EQ(text, "a\n%0a");
}

}  // namespace

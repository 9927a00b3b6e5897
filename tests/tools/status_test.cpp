#include "tool.h"

namespace gaktest {
namespace {

constexpr char kNoSession[] =
    "kStatusPpcNoSession (0x1093036) decimal 17379382 system 0x01 module 0x09 level ERROR number 0x036 \"PPC session "
    "is not existed\"\n";

TEST(StatusTest, NumberGivesFieldsAndText)
{
    const Outcome outcome = Ctl({"status", "0x1093036"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status;
    EXPECT_EQ(outcome.out, kNoSession);
    EXPECT_EQ(outcome.err, "");
}

TEST(StatusTest, DecimalNumberOfALogLineIsUnderstood)
{
    EXPECT_EQ(Ctl({"status", "17379382"}).out, kNoSession);
}

TEST(StatusTest, HexadecimalNumberNeedsNoPrefix)
{
    EXPECT_EQ(Ctl({"status", "1093036"}).out, kNoSession);
}

TEST(StatusTest, TextGivesItsNumber)
{
    EXPECT_EQ(Ctl({"status", "ppc session IS not existed"}).out, kNoSession);
}

TEST(StatusTest, TextOfTwoNumbersGivesBoth)
{
    const Outcome outcome = Ctl({"status", "memory copy failed"});
    EXPECT_EQ(CountOf(outcome.out, "\n"), 2u);
    EXPECT_NE(outcome.out.find("0x11230CB"), std::string::npos);
    EXPECT_NE(outcome.out.find("0x11730F0"), std::string::npos);
}

TEST(StatusTest, PartOfATextFindsAllThatContainIt)
{
    const Outcome outcome = Ctl({"status", "PPC m"});
    EXPECT_EQ(CountOf(outcome.out, "\n"), CountOf(outcome.out, "\"PPC m"));
    EXPECT_GE(CountOf(outcome.out, "\n"), 6u);
}

TEST(StatusTest, ListHasTheWholeTable)
{
    const Outcome outcome = Ctl({"status", "--list"});
    EXPECT_TRUE(outcome.status.ExitedWith(0));
    EXPECT_EQ(CountOf(outcome.out, " system 0x01 "), 251u);
    EXPECT_EQ(CountOf(outcome.out, " code of the driver "), 13u);
    EXPECT_EQ(CountOf(outcome.out, "\n"), 264u);
}

TEST(StatusTest, CodeOfTheDriverIsNamed)
{
    const std::string closed =
        "PPC_ERR_SOCKET_CLOSED (25) code of the driver \"the peer closed before a frame began, or this end has "
        "closed\"\n";
    EXPECT_EQ(Ctl({"status", "25"}).out, closed);
    EXPECT_EQ(Ctl({"status", "0x19"}).out, closed);
    EXPECT_EQ(Ctl({"status", "ppc_err_socket_closed"}).out, closed);
    EXPECT_TRUE(FitsSchema(Ctl({"status", "25", "--json"}).out, "status"));
}

TEST(StatusTest, ConstantGivesItsNumber)
{
    EXPECT_EQ(Ctl({"status", "kStatusPpcNoSession"}).out, kNoSession);
    EXPECT_EQ(Ctl({"status", "ppcnosess"}).out, kNoSession);
}

TEST(StatusTest, NumberWithoutAConstantStandsAlone)
{
    const std::string unnamed = Ctl({"status", "0x11230cb"}).out;
    EXPECT_EQ(unnamed.rfind("0x11230CB decimal 17969355 system 0x01 module 0x12 ", 0), 0U) << unnamed;
}

TEST(StatusTest, JsonFitsItsSchema)
{
    EXPECT_TRUE(FitsSchema(Ctl({"status", "--list", "--json"}).out, "status"));
    EXPECT_TRUE(FitsSchema(Ctl({"status", "0xdead", "--json"}).out, "status"));
}

TEST(StatusTest, UnknownNumberIsTakenApartAndFails)
{
    const Outcome outcome = Ctl({"status", "0x1094fff"});
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_NE(outcome.out.find("module 0x09 level FATAL number 0xfff not in the table"), std::string::npos)
        << outcome.out;
}

TEST(StatusTest, UnknownTextFails)
{
    const Outcome outcome = Ctl({"status", "no such text"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find("no such text"), std::string::npos);
}

TEST(StatusTest, NeedsAQueryOrTheListButNotBoth)
{
    EXPECT_TRUE(Ctl({"status"}).status.ExitedWith(2));
    EXPECT_TRUE(Ctl({"status", "--list", "0x1093036"}).status.ExitedWith(2));
}

TEST(StatusTest, NumberWithMoreBehindItIsNoNumber)
{
    for (const char* query : {"25x", "0x1093036x", "17379382."}) {
        const Outcome outcome = Ctl({"status", query});
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << query;
        EXPECT_EQ(outcome.out, "") << query;
    }
}

}  // namespace
}  // namespace gaktest

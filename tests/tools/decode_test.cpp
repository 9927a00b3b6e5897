#include <algorithm>
#include <fstream>

#include "tool.h"

namespace gaktest {
namespace {

std::string HexOf(const Bytes& bytes)
{
    return Hex(bytes);
}

void WriteFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TEST(DecodeTest, HexadecimalMessageIsShown)
{
    const Outcome outcome = Ctl({"decode"}, HexOf(PpcFrame(FromWorker(2))));
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.err;
    EXPECT_NE(outcome.out.find("HEARTBEAT {\"type\":\"HEARTBEAT\",\"src_id\":0,\"dest_id\":19280,"
                               "\"proc_type\":\"COMPUTE\",\"sub_proc_pid\":4711,\"host_pid\":0}"),
              std::string::npos)
        << outcome.out;
}

TEST(DecodeTest, DashIsStandardInputAndPrefixesAreAccepted)
{
    const Outcome outcome = Ctl({"decode", "-"}, "0x00000004 0x00000000");
    EXPECT_TRUE(outcome.status.ExitedWith(0));
    EXPECT_NE(outcome.out.find("START_RSP"), std::string::npos);
}

TEST(DecodeTest, SeveralFramesAreToldApart)
{
    const Outcome outcome =
        Ctl({"decode", "--json"}, HexOf(PpcFrame(FromWorker(0))) + " " + HexOf(PpcFrame(FromWorker(2))));
    EXPECT_EQ(CountOf(outcome.out, "\n"), 2u);
    EXPECT_TRUE(FitsSchema(outcome.out, "record"));
}

TEST(DecodeTest, HexOptionRepeatsTheBytes)
{
    const Outcome outcome = Ctl({"decode", "--hex"}, "00000004 00000000");
    EXPECT_NE(outcome.out.find("\n    0000000400000000\n"), std::string::npos) << outcome.out;
    EXPECT_TRUE(FitsSchema(Ctl({"decode", "--hex", "--json"}, "00000004 00000000").out, "record"));
}

TEST(DecodeTest, LibraryNamesAreShown)
{
    RawMessage message = FromWorker(3);
    message.lib_names = {{"first", "second"}};
    const Outcome outcome = Ctl({"decode", "--json"}, HexOf(PpcFrame(message)));
    EXPECT_NE(outcome.out.find("\"lib_names\":{\"lib_name\":[\"first\",\"second\"]}"), std::string::npos);
    EXPECT_TRUE(FitsSchema(outcome.out, "record"));
}

TEST(DecodeTest, UnknownEnumerationValuesStayNumbers)
{
    RawMessage message = FromWorker(77);
    message.proc_type = 9;
    const Outcome outcome = Ctl({"decode", "--json"}, HexOf(PpcFrame(message)));
    EXPECT_NE(outcome.out.find("\"type\":77"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("\"proc_type\":9"), std::string::npos);
    EXPECT_TRUE(FitsSchema(outcome.out, "record"));
}

struct Malformed {
    const char* hex;
    const char* problem;
};
void PrintTo(const Malformed& malformed, std::ostream* out)
{
    *out << malformed.hex;
}
class DecodeMalformed : public testing::TestWithParam<Malformed> {};

TEST_P(DecodeMalformed, IsNamedAndFails)
{
    const Outcome outcome = Ctl({"decode", "--json"}, GetParam().hex);
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_NE(outcome.out.find(GetParam().problem), std::string::npos) << outcome.out;
    EXPECT_TRUE(FitsSchema(outcome.out, "record"));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DecodeMalformed,
    testing::Values(Malformed{"00", "length field of 1 byte"}, Malformed{"0000", "length field of 2 byte"},
                    Malformed{"000000", "length field of 3 byte"}, Malformed{"00000000", "frame of length 0"},
                    Malformed{"40000001", "above the limit"}, Malformed{"DEADBEEF 0102", "above the limit"},
                    Malformed{"0000000A 0102", "2 byte(s) where a length of 10"},
                    Malformed{"00000003 010203", "no room for its inner length"},
                    Malformed{"00000006 0300 0000 0802", "inner length 3 where 2"},
                    Malformed{"00000006 0200 0000 08FF", "encoding is damaged"}));

TEST(DecodeTest, OddNumberOfDigitsFails)
{
    const Outcome outcome = Ctl({"decode"}, "000");
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.out, "");
}

TEST(DecodeTest, EmptyFileIsNoCapture)
{
    WriteFile("/home/nothing.cap", {});
    for (const Outcome& outcome : {Ctl({"decode", "/home/nothing.cap"}), Ctl({"decode"}), Ctl({"decode"}, " \n")}) {
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
        EXPECT_EQ(outcome.err, "gakppctl: neither a capture nor hexadecimal digits: it is empty\n");
        EXPECT_EQ(outcome.out, "");
    }
}

TEST(DecodeTest, MissingFileFails)
{
    const Outcome outcome = Ctl({"decode", "/nowhere/trace.cap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(outcome.err.find("No such file"), std::string::npos) << outcome.err;
}

// One heartbeat by the description of the format, byte by byte.
Bytes CaptureOfOneHeartbeat(uint8_t version)
{
    const Bytes frame = PpcFrame(FromWorker(2));
    Bytes file = ToBytes("GAKPPCAP");
    const Bytes rest{version,
                     0,
                     0,
                     0,  //
                     0x40,
                     0x42,
                     0x0F,
                     0,
                     0,
                     0,
                     0,
                     0,  // one second after the epoch
                     7,
                     0,
                     0,
                     0,  // connection
                     1,
                     0,
                     0,
                     0,  // frame, to the daemon
                     0x67,
                     0x12,
                     0,
                     0,
                     0xE8,
                     3,
                     0,
                     0,  // pid 4711, uid 1000
                     static_cast<uint8_t>(frame.size()),
                     0,
                     0,
                     0,
                     0,
                     0,
                     0,
                     0,
                     static_cast<uint8_t>(frame.size()),
                     0,
                     0,
                     0};
    file.insert(file.end(), rest.begin(), rest.end());
    file.insert(file.end(), frame.begin(), frame.end());
    return file;
}

TEST(DecodeTest, CaptureIsShownAsRecorded)
{
    WriteFile("/home/one.cap", CaptureOfOneHeartbeat(1));
    const Outcome outcome = Ctl({"decode", "/home/one.cap"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_EQ(outcome.out.find("1970-01-01T00:00:01.000000Z #7 -> pid 4711 uid 1000 HEARTBEAT {"), 0u) << outcome.out;
}

TEST(DecodeTest, TruncatedCaptureShowsWholeRecordsAndFails)
{
    const Bytes whole = CaptureOfOneHeartbeat(1);
    const size_t header = 12;
    Bytes file = whole;
    file.insert(file.end(), whole.begin() + header, whole.end());  // a second record
    for (const size_t missing : {size_t{1}, size_t{8}, whole.size() - header - 1}) {
        WriteFile("/home/cut.cap", Bytes(file.begin(), file.end() - static_cast<ptrdiff_t>(missing)));
        const Outcome outcome = Ctl({"decode", "/home/cut.cap"});
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << missing << ": " << outcome.status;
        EXPECT_EQ(outcome.err, "gakppctl: the capture ends inside a record: it is incomplete\n") << missing;
        EXPECT_EQ(CountOf(outcome.out, "\n"), 1u) << missing;
    }
    WriteFile("/home/empty.cap", Bytes(whole.begin(), whole.begin() + header));
    EXPECT_TRUE(Ctl({"decode", "/home/empty.cap"}).status.ExitedWith(0)) << "a capture without records is complete";
}

TEST(DecodeTest, DirectoryIsRefused)
{
    const Outcome outcome = Ctl({"decode", "/home"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err, "gakppctl: /home: Is a directory\n");
    EXPECT_EQ(outcome.out, "");
}

// Nothing below space but the newline, no DEL, nothing above ASCII.
bool IsPlainText(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

TEST(DecodeTest, ControlBytesAreNeverPrinted)
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    for (const std::string& input : {bytes, "\x1b[31m" + bytes, std::string("41\x1b"), "\x9b" + bytes}) {
        const Outcome outcome = Ctl({"decode"}, input);
        EXPECT_TRUE(outcome.status.ExitedWith(1));
        EXPECT_TRUE(IsPlainText(outcome.err)) << Hex(ToBytes(outcome.err));
        EXPECT_EQ(outcome.out, "");
    }
    const Outcome missing = Ctl({"decode", "/home/\x1b[31m\x07\xff"});
    EXPECT_EQ(missing.err, "gakppctl: /home/\\x1b[31m\\x07\\xff: No such file or directory\n");
}

TEST(DecodeTest, ControlCharactersInAMessageAreEscaped)
{
    RawMessage message = FromWorker(3);
    message.lib_names = {{"\x1b[31m\x7f\n", "\xc2\x9b"}};
    for (const bool json : {false, true}) {
        const Outcome outcome =
            Ctl(json ? std::vector<std::string>{"decode", "--json"} : std::vector<std::string>{"decode"},
                HexOf(PpcFrame(message)));
        EXPECT_TRUE(outcome.status.ExitedWith(0));
        EXPECT_NE(outcome.out.find(R"("lib_name":["\u001b[31m\u007f\n","\u009b"])"), std::string::npos) << outcome.out;
        EXPECT_TRUE(IsPlainText(outcome.out));
    }
    message.lib_names = {{"\xff"}};  // no UTF-8
    const Outcome outcome = Ctl({"decode"}, HexOf(PpcFrame(message)));
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(outcome.out.find("MALFORMED (the encoding is damaged"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.err, "");
}

struct Event {
    uint8_t kind;       // 0 opened, 1 frame, 2 no frame, 3 closed
    uint8_t direction;  // 1 to the worker
    uint8_t pid;        // of the sender
    Bytes bytes;
};

// A capture of worker 7 on device 1, of which one message claims to be from 99, of worker 8 on device 2, and of a
// process 9 that sends what is no frame.
Bytes CaptureOfAConversation()
{
    RawMessage start = FromWorker(0, 1, 7);
    start.proc_type = 0;
    RawMessage order = FromWorker(5, 19280, 7);
    order.dest_id = 1;
    const std::vector<Event> events{{0, 0, 7, {}},
                                    {1, 0, 7, PpcFrame(start)},
                                    {1, 0, 7, PpcFrame(FromWorker(2, 1, 99))},
                                    {1, 1, 3, PpcFrame(order)},
                                    {1, 1, 3, {0, 0, 0, 0}},
                                    {1, 0, 8, PpcFrame(FromWorker(2, 2, 8))},
                                    {2, 0, 9, {0, 0}},
                                    {3, 0, 7, {}}};
    Bytes file = ToBytes("GAKPPCAP");
    file.insert(file.end(), {1, 0, 0, 0});
    for (const Event& event : events) {
        Bytes record(36);
        record[8] = 1;
        record[12] = event.kind;
        record[13] = event.direction;
        record[16] = event.pid;
        record[24] = record[32] = static_cast<uint8_t>(event.bytes.size());
        file.insert(file.end(), record.begin(), record.end());
        file.insert(file.end(), event.bytes.begin(), event.bytes.end());
    }
    return file;
}

struct Filtered {
    std::vector<std::string> arguments;
    std::vector<std::string> shown;  // in this order, and no other line
    int status;
};
void PrintTo(const Filtered& filtered, std::ostream* out)
{
    for (const std::string& argument : filtered.arguments) {
        *out << argument << ' ';
    }
}
class DecodeFilter : public testing::TestWithParam<Filtered> {};

TEST_P(DecodeFilter, ShowsWhatAgrees)
{
    WriteFile("/home/talk.cap", CaptureOfAConversation());
    std::vector<std::string> arguments{"decode", "/home/talk.cap"};
    arguments.insert(arguments.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    const Outcome outcome = Ctl(arguments);
    EXPECT_TRUE(outcome.status.ExitedWith(GetParam().status)) << outcome.status << outcome.err;
    EXPECT_EQ(CountOf(outcome.out, "\n"), GetParam().shown.size()) << outcome.out;
    size_t at = 0;
    for (const std::string& text : GetParam().shown) {
        at = outcome.out.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " is not in\n" << outcome.out;
        at = outcome.out.find('\n', at);
    }
    arguments.emplace_back("--json");
    const std::string json = Ctl(arguments).out;
    EXPECT_TRUE(json.empty() ? GetParam().shown.empty() : static_cast<bool>(FitsSchema(json, "record")));
}

INSTANTIATE_TEST_SUITE_P(
    Options, DecodeFilter,
    testing::Values(
        Filtered{{}, {"open", "START", "claims pid 99", "SHUTDOWN", "length 0", "pid 8", "2 byte(s)", "close"}, 1},
        Filtered{{"--device", "1"}, {"START_RSP", "HEARTBEAT", "SHUTDOWN"}, 0},
        Filtered{{"--device", "2", "--device", "1"}, {"START_RSP", "HEARTBEAT", "SHUTDOWN", "HEARTBEAT"}, 0},
        Filtered{{"--device", "19280"}, {}, 0}, Filtered{{"--type", "zolt"}, {"START_RSP"}, 0},
        Filtered{{"--type", "0,CUSTOM_COMPUTE"}, {"START_RSP"}, 0},
        Filtered{{"--message", "Heartbeat"}, {"pid 7", "pid 8"}, 0},
        Filtered{{"--message", "5,start_rsp"}, {"START_RSP", "SHUTDOWN"}, 0},
        Filtered{{"--pid", "7"}, {"open", "START_RSP", "(claims pid 99)", "SHUTDOWN", "close"}, 0},
        Filtered{{"--pid", "99"}, {"(claims pid 99)"}, 0}, Filtered{{"--pid", "3"}, {}, 0},
        Filtered{{"--worker", "9"}, {"MALFORMED"}, 1}, Filtered{{"--pid", "9", "--device", "1"}, {}, 0},
        Filtered{{"--pid", "8,7", "--message", "HEARTBEAT"}, {"(claims pid 99)", "pid 8"}, 0},
        Filtered{{"--device", "1", "--message", "HEARTBEAT", "--type", "compute", "--pid", "7"}, {"claims"}, 0}));

TEST(DecodeTest, DamagedMessageIsFilteredByWhatCouldBeDecoded)
{
    const std::string hex = "0000000A 06000000 0802 1001 28FF";  // ends inside a number
    EXPECT_EQ(CountOf(Ctl({"decode", "--device", "1"}, hex).out, "MALFORMED"), 1U);
    EXPECT_EQ(CountOf(Ctl({"decode", "--message", "HEARTBEAT"}, hex).out, "MALFORMED"), 1U);
    EXPECT_EQ(Ctl({"decode", "--device", "2"}, hex).out, "");
}

TEST(DecodeTest, CaptureOfAnotherVersionIsRefused)
{
    WriteFile("/home/new.cap", CaptureOfOneHeartbeat(2));
    const Outcome outcome = Ctl({"decode", "/home/new.cap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(outcome.err.find("version 2"), std::string::npos);
}

TEST(DecodeTest, DamagedCaptureIsRefused)
{
    const size_t record = 8 + 4;
    const Bytes whole = CaptureOfOneHeartbeat(1);
    struct Damage {
        const char* what;
        std::vector<std::pair<size_t, uint8_t>> bytes;  // offset in the record, value
    };
    const std::vector<Damage> damages{
        {"a time that is out of range", {{7, 0x7F}}},
        {"a time before 1970", {{7, 0xFF}}},
        {"no connection number", {{8, 0}}},
        {"an unknown kind", {{12, 9}}},
        {"an unknown direction", {{13, 2}}},
        {"a negative process id", {{19, 0x80}}},
        {"more bytes than on the wire", {{24, 1}}},
        {"fewer bytes than could be kept", {{32, 5}}},
        {"more bytes than are ever kept", {{27, 0x7F}, {35, 0x7F}}},
        {"a frame without its length field", {{24, 2}, {32, 2}}},
        {"a fragment without bytes", {{12, 2}, {24, 0}, {32, 0}}},
    };
    for (const Damage& damage : damages) {
        Bytes file = whole;
        for (const auto& [offset, value] : damage.bytes) {
            file[record + offset] = value;
        }
        WriteFile("/home/damaged.cap", file);
        const Outcome outcome = Ctl({"decode", "/home/damaged.cap"});
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << damage.what;
        EXPECT_EQ(outcome.err, "gakppctl: record 1 of the capture is damaged\n") << damage.what;
        EXPECT_EQ(outcome.out, "") << damage.what;
    }
}

}  // namespace
}  // namespace gaktest

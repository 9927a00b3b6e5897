#include <algorithm>

#include "pcap_file.h"
#include "tool.h"

namespace gaktest {
namespace {

std::string HexOf(const Bytes& bytes)
{
    return Hex(bytes);
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
    WriteFile("/home/nothing.pcap", {});
    for (const Outcome& outcome : {Ctl({"decode", "/home/nothing.pcap"}), Ctl({"decode"}), Ctl({"decode"}, " \n")}) {
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
        EXPECT_EQ(outcome.err, "gakppctl: neither a capture nor hexadecimal digits: it is empty\n");
        EXPECT_EQ(outcome.out, "");
    }
}

TEST(DecodeTest, MissingFileFails)
{
    const Outcome outcome = Ctl({"decode", "/nowhere/trace.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(outcome.err.find("No such file"), std::string::npos) << outcome.err;
}

PcapRecord Heartbeat(uint32_t connection = 7)
{
    PcapRecord record;
    record.connection = connection;
    record.bytes = PpcFrame(FromWorker(2));
    return record;
}

// What every capture of one heartbeat is decoded to.
constexpr char kOneHeartbeat[] = "1970-01-01T00:00:01.000000Z #7 -> pid 4711 uid 1000 HEARTBEAT {";

TEST(DecodeTest, CaptureIsShownAsRecorded)
{
    WriteFile("/home/one.pcap", PcapFile().Add(Heartbeat()).bytes());
    const Outcome outcome = Ctl({"decode", "/home/one.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_EQ(outcome.out.find(kOneHeartbeat), 0u) << outcome.out;
}

TEST(DecodeTest, CaptureComesFromStandardInputAsWell)
{
    const Bytes file = PcapFile().Add(Heartbeat()).bytes();
    const Outcome outcome = Ctl({"decode"}, std::string(file.begin(), file.end()));
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_EQ(outcome.out.find(kOneHeartbeat), 0u) << outcome.out;
}

TEST(DecodeTest, CaptureIsShownWhileItIsWritten)
{
    Tool decode(kGakppctl, {"decode", "-"});
    const Bytes file = PcapFile().Add(Heartbeat()).bytes();
    decode.Write(std::string(file.begin(), file.end()));
    EXPECT_TRUE(decode.WaitForOut("HEARTBEAT")) << "before the end of standard input";
    EXPECT_TRUE(decode.Finish().ExitedWith(0));
}

TEST(DecodeTest, CapturesOfBothByteOrdersAndPrecisionsAreRead)
{
    for (const uint32_t magic : {kNanosecondMagic, kMicrosecondMagic}) {
        for (const bool bigEndian : {false, true}) {
            PcapRecord record = Heartbeat();
            record.fraction = magic == kNanosecondMagic ? 123456789 : 123456;
            WriteFile("/home/other.pcap", PcapFile({magic, bigEndian}).Add(record).bytes());
            const Outcome outcome = Ctl({"decode", "/home/other.pcap"});
            EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
            EXPECT_EQ(outcome.out.find("1970-01-01T00:00:01.123456Z #7 -> pid 4711 uid 1000 HEARTBEAT"), 0u)
                << std::hex << magic << bigEndian << outcome.out;
        }
    }
}

TEST(DecodeTest, TimesUpToTheYear2106AreRead)
{
    PcapRecord record = Heartbeat();
    record.seconds = 0xFFFFFFFF;
    WriteFile("/home/late.pcap", PcapFile().Add(record).bytes());
    EXPECT_EQ(Ctl({"decode", "/home/late.pcap"}).out.find("2106-02-07T06:28:15.000000Z #7"), 0u);
}

TEST(DecodeTest, TruncatedCaptureShowsWholeRecordsAndFails)
{
    const Bytes file = PcapFile().Add(Heartbeat()).Add(Heartbeat()).bytes();
    const size_t record = (file.size() - kPcapHeaderSize) / 2;
    for (const size_t missing : {size_t{1}, size_t{8}, record - kPacketHeaderSize, record - 1}) {
        WriteFile("/home/cut.pcap", Bytes(file.begin(), file.end() - static_cast<ptrdiff_t>(missing)));
        const Outcome outcome = Ctl({"decode", "/home/cut.pcap"});
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << missing << ": " << outcome.status;
        EXPECT_EQ(outcome.err, "gakppctl: the capture ends inside a record: it is incomplete\n") << missing;
        EXPECT_EQ(CountOf(outcome.out, "\n"), 1u) << missing;
    }
    WriteFile("/home/empty.pcap", PcapFile().bytes());
    EXPECT_TRUE(Ctl({"decode", "/home/empty.pcap"}).status.ExitedWith(0)) << "a capture without records is complete";
}

TEST(DecodeTest, CaptureThatEndsInsideItsHeaderIsNone)
{
    const Bytes header = PcapFile().bytes();
    WriteFile("/home/cut.pcap", Bytes(header.begin(), header.end() - 1));
    const Outcome outcome = Ctl({"decode", "/home/cut.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err.find("gakppctl: not a capture: truncated dump file"), 0u) << outcome.err;
}

TEST(DecodeTest, CutPacketsAreShownAsSuch)
{
    PcapRecord frame = Heartbeat();
    frame.bytes.resize(frame.bytes.size() - 3);
    frame.cut = 3;
    PcapRecord fragment = Heartbeat();
    fragment.kind = 2;
    fragment.bytes = {0, 0};
    fragment.cut = 5;
    PcapRecord nothing = Heartbeat();
    nothing.bytes.clear();
    nothing.cut = 21;
    WriteFile("/home/cut.pcap", PcapFile().Add(frame).Add(fragment).Add(nothing).bytes());
    const Outcome outcome = Ctl({"decode", "--hex", "--json", "/home/cut.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    const size_t whole = frame.bytes.size();
    EXPECT_EQ(CountOf(outcome.out, "only " + std::to_string(whole) + " of " + std::to_string(whole + 3) + " bytes"),
              1u);
    EXPECT_EQ(CountOf(outcome.out, "\"problem\":\"only 2 of 7 bytes were kept\",\"hex\":\"0000\""), 1u) << outcome.out;
    EXPECT_EQ(CountOf(outcome.out, "only 0 of 21 bytes were kept"), 1u);
    EXPECT_TRUE(FitsSchema(outcome.out, "record"));
}

TEST(DecodeTest, PacketAboveTheSnapLengthIsCutThere)
{
    PcapFormat format;
    format.snapLength = 20;
    WriteFile("/home/snap.pcap", PcapFile(format).Add(Heartbeat()).Add(Heartbeat(8)).bytes());
    const Outcome outcome = Ctl({"decode", "/home/snap.pcap"});
    EXPECT_EQ(CountOf(outcome.out, "MALFORMED (only 4 of "), 2u) << outcome.out;
    EXPECT_NE(outcome.out.find("#8"), std::string::npos);
}

TEST(DecodeTest, CaptureOfAnotherLinkTypeIsRefused)
{
    PcapFormat format;
    format.linkType = 1;
    WriteFile("/home/lan.pcap", PcapFile(format).Add(Heartbeat()).bytes());
    const Outcome outcome = Ctl({"decode", "/home/lan.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err,
              "gakppctl: not a capture of control messages: its link type is EN10MB (1) instead of USER0 (147)\n");
    EXPECT_EQ(outcome.out, "");
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

TEST(DecodeTest, StringsThatAreNoUtf8AreReplaced)
{
    for (const char* name : {"\xf0\x80\x84\x9e", "\xf0\x80", "a\xc3", "\xed\xa0\x80", "\xf8\x88\x80\x80\x80"}) {
        RawMessage message = FromWorker(3);
        message.lib_names = {{"before", name, "behind"}};
        const Outcome outcome = Ctl({"decode", "--json"}, HexOf(PpcFrame(message)));
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
        EXPECT_EQ(outcome.err, "");
        EXPECT_NE(outcome.out.find("the encoding is damaged"), std::string::npos) << outcome.out;
        EXPECT_TRUE(FitsSchema(outcome.out, "record"));
    }
}

PcapRecord RecordOf(uint8_t kind, uint8_t direction, uint32_t pid, const Bytes& bytes)
{
    PcapRecord record;
    record.kind = kind;
    record.direction = direction;
    record.pid = pid;
    record.bytes = bytes;
    return record;
}

// A capture of worker 7 on device 1, of which one message claims to be from 99, of worker 8 on device 2, and of a
// process 9 that sends what is no frame.
Bytes CaptureOfAConversation()
{
    RawMessage start = FromWorker(0, 1, 7);
    start.proc_type = 0;
    RawMessage order = FromWorker(5, 19280, 7);
    order.dest_id = 1;
    return PcapFile()
        .Add(RecordOf(0, 0, 7, {}))
        .Add(RecordOf(1, 0, 7, PpcFrame(start)))
        .Add(RecordOf(1, 0, 7, PpcFrame(FromWorker(2, 1, 99))))
        .Add(RecordOf(1, 1, 3, PpcFrame(order)))
        .Add(RecordOf(1, 1, 3, {0, 0, 0, 0}))
        .Add(RecordOf(1, 0, 8, PpcFrame(FromWorker(2, 2, 8))))
        .Add(RecordOf(2, 0, 9, {0, 0}))
        .Add(RecordOf(3, 0, 7, {}))
        .bytes();
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
    WriteFile("/home/talk.pcap", CaptureOfAConversation());
    std::vector<std::string> arguments{"decode", "/home/talk.pcap"};
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

TEST(DecodeTest, PseudoHeaderOfAnotherVersionIsRefused)
{
    PcapRecord record = Heartbeat();
    record.version = 2;
    WriteFile("/home/new.pcap", PcapFile().Add(Heartbeat()).Add(record).bytes());
    const Outcome outcome = Ctl({"decode", "/home/new.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err, "gakppctl: record 2 of the capture has a pseudo-header of version 2, which is not known\n");
    EXPECT_EQ(CountOf(outcome.out, "\n"), 1u) << "what comes before it is shown";
}

TEST(DecodeTest, DamagedCaptureIsRefused)
{
    const Bytes whole = PcapFile().Add(Heartbeat()).bytes();
    const size_t pseudo = kPacketHeaderSize;  // where the pseudo-header begins in the record
    struct Damage {
        const char* what;
        std::vector<std::pair<size_t, uint8_t>> bytes;  // offset in the record, value
    };
    const std::vector<Damage> damages{
        {"a second of more than 10^9 nanoseconds", {{7, 0x7F}}},
        {"a negative number of nanoseconds", {{7, 0xFF}}},
        {"more bytes than on the wire", {{12, 1}}},
        {"an unknown kind", {{pseudo + 1, 9}}},
        {"an unknown direction", {{pseudo + 2, 2}}},
        {"no connection number", {{pseudo + 7, 0}}},
        {"a negative process id", {{pseudo + 8, 0x80}}},
        {"no whole pseudo-header", {{8, 15}}},
        {"a frame of another length than it says", {{pseudo + 16 + 3, 99}}},
        {"a frame without its length field", {{8, 16}, {12, 19}}},
        {"a fragment without bytes", {{8, 16}, {12, 16}, {pseudo + 1, 2}}},
    };
    for (const Damage& damage : damages) {
        Bytes file = whole;
        for (const auto& [offset, value] : damage.bytes) {
            file[kPcapHeaderSize + offset] = value;
        }
        WriteFile("/home/damaged.pcap", file);
        const Outcome outcome = Ctl({"decode", "/home/damaged.pcap"});
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << damage.what;
        EXPECT_EQ(outcome.err, "gakppctl: record 1 of the capture is damaged\n") << damage.what;
        EXPECT_EQ(outcome.out, "") << damage.what;
    }
}

TEST(DecodeTest, ImpossibleLengthIsDamage)
{
    Bytes file = PcapFile().Add(Heartbeat()).bytes();
    file[kPcapHeaderSize + 11] = 0x7F;
    WriteFile("/home/damaged.pcap", file);
    const Outcome outcome = Ctl({"decode", "/home/damaged.pcap"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err.find("gakppctl: record 1 of the capture is damaged: invalid packet capture length"), 0u)
        << outcome.err;
}

}  // namespace
}  // namespace gaktest

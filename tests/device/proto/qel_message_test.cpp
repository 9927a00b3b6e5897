#include "qel_message.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace pb = google::protobuf;

struct MessageSchema {
    const char* name;
    std::vector<std::string> fields;  // "number name type", in the order of the file
};

const std::vector<MessageSchema>& Schema()
{
    static const std::vector<MessageSchema> schema = {
        {"InitMsg", {"1 pid int32"}},
        {"InitRspMsg", {"1 init_result uint32"}},
        {"DataMemoryInfo", {"1 addr uint64", "2 size uint32"}},
        {"RecvAddressMsg", {"1 ctrl_va_address repeated packed uint64", "2 data_va_address repeated DataMemoryInfo"}},
        {"StartResultMsg", {"2 result uint32"}},
        {"DataMsg",
         {"1 graph_id uint32", "2 engine_id uint32", "3 port_id uint32", "4 message_name string", "5 data_str bytes",
          "6 req_id uint64"}},
        {"ChannelName", {"1 channel_name string"}},
        {"QELElement", {"1 channelName string"}},
        {"QelServerException", {"1 result uint32"}},
        {"FreeDataMsgInfo",
         {"1 release_address uint64", "2 address_type uint32", "3 address_form uint32", "4 address_end uint32",
          "5 data_size uint32"}},
        {"FreeDataMsg", {"1 free_data_msg_info repeated FreeDataMsgInfo"}},
        {"ProcessSignPid", {"1 proc_pid uint32", "2 proc_sign string"}},
        {"QelDataElemMsg",
         {"1 channel_name string", "2 index uint64", "3 data_type uint64", "4 label uint64", "5 data_len uint64",
          "6 is_block bool", "7 block_num uint64", "8 head_md5 uint64", "9 tail_md5 uint64", "10 tensor_name string",
          "11 tensor_shape string", "12 tensor_type string", "13 cnt uint32", "14 current_cnt uint32"}},
        {"HDCMessage",
         {"1 graph_id uint32",
          "2 type HDCMessage.MsgType",
          "3 init_req InitMsg",
          "4 init_rsp InitRspMsg",
          "5 service_type uint32",
          "6 data_msg DataMsg",
          "7 start_result_msg StartResultMsg",
          "13 device_id uint32",
          "14 proc_sign_pid ProcessSignPid",
          "15 real_device_id uint32",
          "16 recv_addr_msg RecvAddressMsg",
          "17 release_addr_msg FreeDataMsg",
          "18 memory_size uint32",
          "19 job_id uint64",
          "20 update_config_result uint32",
          "21 req_id uint64",
          "22 qel_element QELElement",
          "23 channel_name ChannelName",
          "24 qel_server_exception QelServerException",
          "25 gak_rsp_code uint32",
          "26 qel_main_pid int32",
          "27 qel_sessionid uint32",
          "28 profiling_mode uint32",
          "29 rank_size uint32",
          "30 qel_data_element QelDataElemMsg",
          "31 start_zolt bool",
          "32 start_cp bool"}},
        {"VexoSdLibNames", {"1 lib_name repeated string"}},
        {"PPCMessage",
         {"1 type PPCMessage.MsgType", "2 src_id uint32", "3 dest_id uint32", "4 proc_type PPCMessage.ProcessType",
          "5 sub_proc_pid uint32", "6 host_pid uint32", "7 lib_names VexoSdLibNames"}},
        {"QelDataElemDefMessage",
         {"1 channel_name string", "2 index uint64", "3 data_type uint32", "4 label uint64", "5 head_md5 bytes",
          "6 tail_md5 bytes", "7 tensor_shape bytes", "8 tensor_type bytes", "9 cnt uint32", "10 current_cnt uint32",
          "11 real_data_len uint64"}},
    };
    return schema;
}

// Names in the order of their values, which count from 0.
struct EnumSchema {
    const char* message;
    const char* name;
    std::vector<std::string> values;
};

const std::vector<EnumSchema>& Enums()
{
    static const std::vector<EnumSchema> enums = {
        {"HDCMessage",
         "MsgType",
         {"INIT",
          "INIT_RSP",
          "CREATE_MEMORYPOOL",
          "DESTORY_MEMORYPOOL",
          "DATA",
          "START_RESULT",
          "GAK_START_PROC_MSG",
          "GAK_CLOSE_PROC_MSG",
          "GAK_START_PROC_RSP",
          "GAK_CLOSE_PROC_RSP",
          "SOCKET_CLOSED",
          "RELEASE_ADDR",
          "START_FAST_RECV",
          "DESTROY_RESULT",
          "RESET_CONFIG",
          "UPDATE_MEMORY_SIZE",
          "UPDATE_RECV_POOL",
          "ENLARGE_RECV_POOL",
          "REDUCE_RECV_POOL",
          "ENLARGE_RESULT",
          "REDUCE_RESULT",
          "RESET_CONFIG_RESULT",
          "QEL_ELEMENT",
          "CHANNEL_NAME",
          "QEL_SERVER_EXCEPTION",
          "QEL_SERVER_PIDMSG",
          "QEL_PIDMSG_RESULT",
          "QEL_NORMAL_CHANNEL_SEND",
          "QEL_END_OF_SEQUENCE",
          "QEL_SERVER_CLOSE_HDC"}},
        {"PPCMessage",
         "MsgType",
         {"START_RSP", "SHUTDOWN_RSP", "HEARTBEAT", "NOTIFY_VEXOINFO", "ABNORMAL", "SHUTDOWN", "SOCKET_CLOSE"}},
        {"PPCMessage", "ProcessType", {"ZOLT", "COMPUTE", "CUSTOM_COMPUTE", "MAXPROCTYPE"}},
    };
    return enums;
}

const char* const kTextFields[] = {
    "qel.DataMsg.message_name",        "qel.ChannelName.channel_name",
    "qel.QELElement.channelName",      "qel.ProcessSignPid.proc_sign",
    "qel.QelDataElemMsg.channel_name", "qel.QelDataElemMsg.tensor_name",
    "qel.QelDataElemMsg.tensor_shape", "qel.QelDataElemMsg.tensor_type",
    "qel.VexoSdLibNames.lib_name",     "qel.QelDataElemDefMessage.channel_name",
};

const char* const kByteFields[] = {
    "qel.DataMsg.data_str",
    "qel.QelDataElemDefMessage.head_md5",
    "qel.QelDataElemDefMessage.tail_md5",
    "qel.QelDataElemDefMessage.tensor_shape",
    "qel.QelDataElemDefMessage.tensor_type",
};

const char kInvalidUtf8[] = "\xFF";

const pb::FileDescriptor& File()
{
    return *qel::PPCMessage::descriptor()->file();
}

std::string TypeName(const pb::FieldDescriptor& field)
{
    const std::string package = "qel.";
    if (field.message_type() != nullptr) {
        return std::string(field.message_type()->full_name()).substr(package.size());
    }
    if (field.enum_type() != nullptr) {
        return std::string(field.enum_type()->full_name()).substr(package.size());
    }
    return field.type_name();
}

std::string Describe(const pb::FieldDescriptor& field)
{
    return std::to_string(field.number()) + " " + std::string(field.name()) + (field.is_repeated() ? " repeated" : "") +
           (field.is_packed() ? " packed" : "") + " " + TypeName(field);
}

std::unique_ptr<pb::Message> NewMessage(const pb::Descriptor* type)
{
    return std::unique_ptr<pb::Message>(pb::MessageFactory::generated_factory()->GetPrototype(type)->New());
}

// A message whose one field of text or bytes, named in full, holds one byte that is no UTF-8.
std::unique_ptr<pb::Message> WithInvalidUtf8(const std::string& fullName)
{
    const pb::FieldDescriptor* field = pb::DescriptorPool::generated_pool()->FindFieldByName(fullName);
    if (field == nullptr) {
        ADD_FAILURE() << fullName << " does not exist";
        return std::make_unique<qel::PPCMessage>();
    }
    std::unique_ptr<pb::Message> message = NewMessage(field->containing_type());
    if (field->is_repeated()) {
        message->GetReflection()->AddString(message.get(), field, kInvalidUtf8);
    } else {
        message->GetReflection()->SetString(message.get(), field, kInvalidUtf8);
    }
    return message;
}

std::string Tag(const std::string& fullName)
{
    const int number = pb::DescriptorPool::generated_pool()->FindFieldByName(fullName)->number();
    return std::string(1, static_cast<char>(number << 3 | 2));
}

std::string Bytes(const std::vector<int>& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

template <typename Message>
void ExpectWire(const Message& message, const std::vector<int>& bytes)
{
    EXPECT_EQ(message.SerializeAsString(), Bytes(bytes));
    Message parsed;
    EXPECT_TRUE(parsed.ParseFromString(Bytes(bytes)));
    EXPECT_EQ(parsed.ShortDebugString(), message.ShortDebugString());
}

// ---- Schema ------------------------------------------------------------------------------------------------------

TEST(Schema, FileIsProto3OfPackageQelWithoutImportsAndOptions)
{
    EXPECT_EQ(File().name(), "qel_message.proto");
    EXPECT_EQ(File().package(), "qel");
    EXPECT_EQ(File().syntax(), pb::FileDescriptor::SYNTAX_PROTO3);
    EXPECT_EQ(File().dependency_count(), 0);
    EXPECT_EQ(File().options().ByteSizeLong(), 0U);
    EXPECT_EQ(File().enum_type_count(), 0);
    EXPECT_EQ(File().service_count(), 0);
    EXPECT_EQ(File().extension_count(), 0);
}

TEST(Schema, FileIsInTheGeneratedPool)
{
    EXPECT_EQ(pb::DescriptorPool::generated_pool()->FindFileByName("qel_message.proto"), &File());
}

TEST(Schema, MessagesStandInFileOrder)
{
    ASSERT_EQ(File().message_type_count(), static_cast<int>(Schema().size()));
    for (int i = 0; i < File().message_type_count(); ++i) {
        EXPECT_EQ(File().message_type(i)->name(), Schema()[static_cast<size_t>(i)].name);
    }
}

TEST(Schema, EveryFieldHasItsNumberNameAndType)
{
    for (const MessageSchema& wanted : Schema()) {
        const pb::Descriptor* message = File().FindMessageTypeByName(wanted.name);
        ASSERT_NE(message, nullptr) << wanted.name;
        std::vector<std::string> fields;
        for (int i = 0; i < message->field_count(); ++i) {
            fields.push_back(Describe(*message->field(i)));
        }
        EXPECT_EQ(fields, wanted.fields) << wanted.name;
    }
}

TEST(Schema, FieldsHaveNoOptionsAndNoExplicitPresence)
{
    for (int i = 0; i < File().message_type_count(); ++i) {
        const pb::Descriptor& message = *File().message_type(i);
        EXPECT_EQ(message.options().ByteSizeLong(), 0U) << message.name();
        EXPECT_EQ(message.oneof_decl_count(), 0) << message.name();
        EXPECT_EQ(message.nested_type_count(), 0) << message.name();
        for (int field = 0; field < message.field_count(); ++field) {
            EXPECT_EQ(message.field(field)->options().ByteSizeLong(), 0U) << message.field(field)->full_name();
            EXPECT_FALSE(message.field(field)->is_required()) << message.field(field)->full_name();
        }
    }
}

TEST(Schema, EnumsCountTheirNamesFromZero)
{
    for (const EnumSchema& wanted : Enums()) {
        const pb::EnumDescriptor* type = File().FindMessageTypeByName(wanted.message)->FindEnumTypeByName(wanted.name);
        ASSERT_NE(type, nullptr) << wanted.message << '.' << wanted.name;
        ASSERT_EQ(type->value_count(), static_cast<int>(wanted.values.size()));
        for (int i = 0; i < type->value_count(); ++i) {
            EXPECT_EQ(type->value(i)->number(), i);
            EXPECT_EQ(type->value(i)->name(), wanted.values[static_cast<size_t>(i)]);
        }
    }
}

TEST(Schema, OnlyTheTwoMessagesHaveEnums)
{
    for (int i = 0; i < File().message_type_count(); ++i) {
        const pb::Descriptor& message = *File().message_type(i);
        const auto enums = std::count_if(Enums().begin(), Enums().end(), [&](const EnumSchema& wanted) {
            return wanted.message == std::string(message.name());
        });
        EXPECT_EQ(message.enum_type_count(), enums) << message.name();
    }
}

TEST(Schema, TextFieldsAreExactlyTheCheckedOnes)
{
    std::vector<std::string> found;
    for (int i = 0; i < File().message_type_count(); ++i) {
        for (int field = 0; field < File().message_type(i)->field_count(); ++field) {
            const pb::FieldDescriptor& candidate = *File().message_type(i)->field(field);
            if (candidate.type() == pb::FieldDescriptor::TYPE_STRING) {
                found.emplace_back(candidate.full_name());
            }
        }
    }
    EXPECT_EQ(found, std::vector<std::string>(std::begin(kTextFields), std::end(kTextFields)));
}

// ---- Generated classes -------------------------------------------------------------------------------------------

TEST(Classes, AreFullMessagesWithReflection)
{
    static_assert(std::is_base_of<pb::Message, qel::PPCMessage>::value, "not a lite message");
    static_assert(std::is_base_of<pb::Message, qel::HDCMessage>::value, "not a lite message");
    for (int i = 0; i < File().message_type_count(); ++i) {
        const auto message = NewMessage(File().message_type(i));
        EXPECT_EQ(message->GetDescriptor(), File().message_type(i));
        EXPECT_NE(message->GetReflection(), nullptr);
        EXPECT_TRUE(message->IsInitialized());
    }
}

TEST(Classes, EnumsAreClassConstantsWithTheirFunctions)
{
    EXPECT_EQ(qel::HDCMessage::QEL_SERVER_CLOSE_HDC, 29);
    EXPECT_EQ(qel::HDCMessage::DESTORY_MEMORYPOOL, 3);
    EXPECT_EQ(qel::PPCMessage::HEARTBEAT, 2);
    EXPECT_EQ(qel::PPCMessage::MAXPROCTYPE, 3);

    EXPECT_TRUE(qel::HDCMessage::MsgType_IsValid(29));
    EXPECT_FALSE(qel::HDCMessage::MsgType_IsValid(30));
    EXPECT_TRUE(qel::PPCMessage::MsgType_IsValid(6));
    EXPECT_FALSE(qel::PPCMessage::MsgType_IsValid(7));
    EXPECT_TRUE(qel::PPCMessage::ProcessType_IsValid(3));
    EXPECT_FALSE(qel::PPCMessage::ProcessType_IsValid(-1));

    EXPECT_EQ(qel::PPCMessage::MsgType_Name(qel::PPCMessage::NOTIFY_VEXOINFO), "NOTIFY_VEXOINFO");
    EXPECT_EQ(qel::PPCMessage::ProcessType_Name(qel::PPCMessage::CUSTOM_COMPUTE), "CUSTOM_COMPUTE");
    qel::PPCMessage::MsgType type = qel::PPCMessage::START_RSP;
    EXPECT_TRUE(qel::PPCMessage::MsgType_Parse("SOCKET_CLOSE", &type));
    EXPECT_EQ(type, qel::PPCMessage::SOCKET_CLOSE);
    EXPECT_FALSE(qel::PPCMessage::MsgType_Parse("SOCKET_CLOSED", &type));
}

// ---- Wire --------------------------------------------------------------------------------------------------------

TEST(Wire, DefaultsSerialiseToZeroBytes)
{
    qel::PPCMessage message;
    message.set_type(qel::PPCMessage::START_RSP);
    message.set_proc_type(qel::PPCMessage::ZOLT);
    EXPECT_EQ(message.ByteSizeLong(), 0U);
    for (int i = 0; i < File().message_type_count(); ++i) {
        EXPECT_EQ(NewMessage(File().message_type(i))->SerializeAsString(), "") << File().message_type(i)->name();
    }
}

TEST(Wire, PpcMessageByByte)
{
    qel::PPCMessage message;
    message.set_type(qel::PPCMessage::NOTIFY_VEXOINFO);
    message.set_src_id(3);
    message.set_dest_id(0x4B50);
    message.set_proc_type(qel::PPCMessage::COMPUTE);
    message.set_sub_proc_pid(300);
    message.set_host_pid(0xFFFFFFFF);
    message.mutable_lib_names()->add_lib_name("ab");
    message.mutable_lib_names()->add_lib_name("");
    ExpectWire(message, {0x08, 3,    0x10, 3,    0x18, 0xD0, 0x96, 0x01, 0x20, 1,   0x28, 0xAC, 0x02, 0x30,
                         0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0x3A, 6,    0x0A, 2,    'a', 'b',  0x0A, 0});
}

TEST(Wire, NegativePidTakesTenBytes)
{
    qel::InitMsg message;
    message.set_pid(-1);
    ExpectWire(message, {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01});
}

TEST(Wire, RepeatedNumbersArePacked)
{
    qel::RecvAddressMsg message;
    message.add_ctrl_va_address(1);
    message.add_ctrl_va_address(300);
    qel::DataMemoryInfo* info = message.add_data_va_address();
    info->set_addr(5);
    info->set_size(6);
    ExpectWire(message, {0x0A, 3, 0x01, 0xAC, 0x02, 0x12, 4, 0x08, 5, 0x10, 6});
}

TEST(Wire, TextAndBytesAreLengthDelimited)
{
    qel::DataMsg message;
    message.set_message_name("n");
    message.set_data_str(std::string("\0\xFF", 2));
    message.set_req_id(1ULL << 63);
    ExpectWire(message,
               {0x22, 1, 'n', 0x2A, 2, 0, 0xFF, 0x30, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01});
}

TEST(Wire, NumbersAbove15TakeTwoBytesOfTag)
{
    qel::HDCMessage message;
    message.set_type(qel::HDCMessage::QEL_SERVER_CLOSE_HDC);
    message.set_device_id(1);
    message.mutable_recv_addr_msg();
    message.set_start_cp(true);
    ExpectWire(message, {0x10, 29, 0x68, 1, 0x82, 0x01, 0, 0x80, 0x02, 1});
}

TEST(Wire, StartResultIsFieldTwo)
{
    qel::StartResultMsg message;
    message.set_result(7);
    ExpectWire(message, {0x10, 7});
}

TEST(Wire, StartResultKeepsFieldOneAsUnknown)
{
    qel::StartResultMsg message;
    ASSERT_TRUE(message.ParseFromString(Bytes({0x08, 5, 0x10, 7})));
    EXPECT_EQ(message.result(), 7U);
    const pb::UnknownFieldSet& unknown = message.GetReflection()->GetUnknownFields(message);
    ASSERT_EQ(unknown.field_count(), 1);
    EXPECT_EQ(unknown.field(0).number(), 1);
    EXPECT_EQ(unknown.field(0).varint(), 5U);
    EXPECT_EQ(message.SerializeAsString(), Bytes({0x10, 7, 0x08, 5}));
}

TEST(Wire, UnknownEnumValuesAreKeptAsNumbers)
{
    const std::string bytes = Bytes({0x08, 99, 0x20, 77});
    qel::PPCMessage message;
    ASSERT_TRUE(message.ParseFromString(bytes));
    EXPECT_EQ(static_cast<int>(message.type()), 99);
    EXPECT_EQ(static_cast<int>(message.proc_type()), 77);
    EXPECT_EQ(message.GetReflection()->GetUnknownFields(message).field_count(), 0);
    EXPECT_EQ(message.SerializeAsString(), bytes);
}

// ---- UTF-8 -------------------------------------------------------------------------------------------------------

TEST(Utf8, InvalidTextMakesTheParseFail)
{
    for (const std::string field : kTextFields) {
        const auto message = WithInvalidUtf8(field);
        message->Clear();
        testing::internal::CaptureStderr();
        EXPECT_FALSE(message->ParseFromString(Tag(field) + "\x01" + kInvalidUtf8)) << field;
        const std::string report = testing::internal::GetCapturedStderr();
        EXPECT_NE(report.find("'" + field + "'"), std::string::npos) << report;
        EXPECT_NE(report.find("when parsing"), std::string::npos) << report;
    }
}

TEST(Utf8, InvalidTextIsReportedAndStillWritten)
{
    for (const std::string field : kTextFields) {
        const auto message = WithInvalidUtf8(field);
        testing::internal::CaptureStderr();
        EXPECT_EQ(message->SerializeAsString(), Tag(field) + "\x01" + kInvalidUtf8) << field;
        const std::string report = testing::internal::GetCapturedStderr();
        EXPECT_NE(report.find("'" + field + "'"), std::string::npos) << report;
        EXPECT_NE(report.find("when serializing"), std::string::npos) << report;
    }
}

TEST(Utf8, ValidTextPassesBothWays)
{
    qel::ChannelName message;
    message.set_channel_name("\xC3\xA4\xF0\x9F\x98\x80");
    ExpectWire(message, {0x0A, 6, 0xC3, 0xA4, 0xF0, 0x9F, 0x98, 0x80});
}

TEST(Utf8, BytesFieldsAreNotChecked)
{
    for (const std::string field : kByteFields) {
        const auto message = WithInvalidUtf8(field);
        testing::internal::CaptureStderr();
        EXPECT_TRUE(message->ParseFromString(message->SerializeAsString())) << field;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << field;
    }
}

}  // namespace

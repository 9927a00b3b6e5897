// What leaves the library: every name of its interface, and nothing else of its own.

#include <cxxabi.h>
#include <gtest/gtest.h>
#include <regex.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "gak.h"
#include "log.h"
#include "ppc.h"
#include "ppc_client.h"
#include "ppc_interface.h"
#include "ppc_server.h"
#include "status_factory.h"
#include "string_util.h"

namespace {

using qel::PPCMessage;

const char* const kPlainNames[] = {
    "ppcInit",
    "GakWaitForShutdown",
    "GakHeartbeatSend",
    "GakDestory",
    "CreateOrFindCustPid",
    "drvPpcCreateDir",
    "drvPpcSetSockPath",
    "drvPpcInit",
    "drvPpcUninit",
    "drvPpcAllocMsg",
    "drvPpcFreeMsg",
    "drvPpcReuseMsg",
    "drvPpcAddMsgBuffer",
    "drvPpcGetMsgBuffer",
    "drvPpcSocketSend",
    "drvPpcSocketRecv",
    "drvPpcSend",
    "drvPpcRecv",
    "drvPpcSocketRecvPeek",
    "drvPpcServerCreate",
    "drvPpcSessionClose",
    "drvPpcServerDestroy",
    "drvPpcSessionAccept",
    "drvPpcClientCreate",
    "drvPpcClientDestroy",
    "drvPpcSessionConnect",
    "drvPpcSessionDestroy",
};

const char* const kCppNames[] = {
    "QEL_LOG_IMPL(char const*, char const*, int, char const*, ...)",
    "QEL_LOG_IMPL(char const*, char const*, int, unsigned int, char const*, ...)",
    "QEL_EVENT_LOG_IMPL(char const*, char const*, int, char const*, ...)",
    "QEL_TRACE_LOG_IMPL(char const*, char const*, int, char const*, char const*, ...)",
    "QEL_OPLOG_IMPL(char const*, char const*, int, char const*, ...)",
    "qel::StatusFactory::GetInstance()",
    "qel::StatusFactory::RegisterErrorNo(unsigned int, std::string const&)",
    "qel::StatusFactory::GetErrDesc(unsigned int)",
    "qel::StatusFactory::GetErrCodeDesc(unsigned int)",
    "qel::QELLog::GetInstance()",
    "qel::QELLog::Init()",
    "qel::QELLog::QELGetCurLogLevel()",
    "qel::QELLog::QELRefreshLevel()",
    "qel::QELLog::QELLogOutputEnable(unsigned int)",
    "qel::QELLog::QELSaveLog(int, unsigned int, char const*, char const*)",
    "qel::Trim(std::string&)",
    "qel::LTrim(std::string&)",
    "qel::RTrim(std::string&)",
    "qel::ReplaceAllSubStrDistinct(std::string&, std::string const&, std::string const&)",
    "qel::RemoveEscapeChar(std::string const&)",
    "qel::PpcInterface::PpcInterface()",
    "qel::PpcInterface::~PpcInterface()",
    "qel::PpcInterface::SendMsg(void*, qel::PPCMessage const&)",
    "qel::PpcInterface::RecvMsg(void*, qel::PPCMessage&)",
    "qel::PpcServer::~PpcServer()",
    "qel::PpcServer::GetInstance()",
    "qel::PpcServer::CreateServer(unsigned int)",
    "qel::PpcServer::AcceptConnection()",
    "qel::PpcServer::SetPpcSession(unsigned int, unsigned int, void* const&)",
    "qel::PpcServer::GetPpcSession(unsigned int, unsigned int)",
    "qel::PpcServer::SendData(qel::PPCMessage const&)",
    "qel::PpcServer::CloseSomeSession(void* const&)",
    "qel::PpcServer::RemoveFromPpcSessionList(void* const&)",
    "qel::PpcServer::Destroy()",
    "qel::PpcServer::RecvData(void* const&, unsigned long)",
    "qel::PpcServer::PPCSerMsgProc(qel::PPCMessage const&)",
    "qel::PpcServer::RegPPCSerMsgProcFunc(unsigned int, void (*)(qel::PPCMessage const&))",
    "qel::PpcServer::JoinAllPPCRcvThreads()",
    "qel::PpcServer::IsPPCServerRunning() const",
    "qel::PpcClient::~PpcClient()",
    "qel::PpcClient::GetInstance()",
    "qel::PpcClient::GetPpcSession(unsigned int, qel::PPCMessage_ProcessType)",
    "qel::PpcClient::SendData(void*&, qel::PPCMessage const&)",
    "qel::PpcClient::RecvData(unsigned int, unsigned int)",
    "qel::PpcClient::RecvMsgProc(unsigned int, void*&, qel::PPCMessage_ProcessType const&, qel::PPCMessage const&)",
    "qel::PpcClient::Destroy()",
    "qel::PpcClient::GetPPCProcessType(unsigned int)",
    "qel::PpcClient::SendPpcMsg(unsigned int, unsigned int, qel::PPCMessage_MsgType)",
    "qel::PpcClient::GakWaitForShutdownProc(unsigned int, unsigned int)",
    "qel::PpcClient::SendHeartbeat(unsigned int, unsigned int)",
    "qel::PpcClient::SendAbnormalMsg(unsigned int, unsigned int)",
    "qel::PpcClient::CreateOrFindCustPid(std::vector<std::string>&, unsigned int)",
};

const char* const kPolymorphicClasses[] = {"PpcInterface", "PpcServer", "PpcClient"};

const char* const kMessages[] = {
    "InitMsg",        "InitRspMsg",     "DataMemoryInfo", "RecvAddressMsg", "StartResultMsg",        "DataMsg",
    "ChannelName",    "QELElement",     "FreeDataMsg",    "ProcessSignPid", "QelServerException",    "FreeDataMsgInfo",
    "QelDataElemMsg", "VexoSdLibNames", "HDCMessage",     "PPCMessage",     "QelDataElemDefMessage",
};

struct Symbol {
    std::string name;  // with short names of the standard types
    char type;
    uint64_t size;
};

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    qel::ReplaceAllSubStrDistinct(text, from, to);
    return text;
}

std::string ReadableName(const std::string& symbol)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&free)> name(abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status),
                                                      &free);
    if (status != 0) {
        return symbol;
    }
    // Demanglers differ in the space between closing brackets.
    std::string text = Replaced(name.get(), " >", ">");
    text = Replaced(text, "[abi:cxx11]", "");
    text =
        Replaced(text, "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char>>", "std::string");
    return Replaced(text, "std::vector<std::string, std::allocator<std::string>>", "std::vector<std::string>");
}

// Symbols of the library's dynamic table: "--defined-only" or "--undefined-only".
std::vector<Symbol> ReadSymbols(const std::string& which)
{
    const std::string command = GAKPPC_NM " -D -P " + which + " '" GAKPPC_LIBRARY_FILE "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), &pclose);
    std::vector<Symbol> symbols;
    char line[4096];
    while (output != nullptr && fgets(line, sizeof(line), output.get()) != nullptr) {
        std::string name;
        std::string value;
        Symbol symbol{};
        std::istringstream(line) >> name >> symbol.type >> value >> std::hex >> symbol.size;
        symbol.name = ReadableName(name.substr(0, name.find('@')));
        symbols.push_back(symbol);
    }
    return symbols;
}

std::vector<Symbol> ReadExports()
{
    return ReadSymbols("--defined-only");
}

std::set<std::string> ExportedNames()
{
    std::set<std::string> names;
    for (const Symbol& symbol : ReadExports()) {
        names.insert(symbol.name);
    }
    return names;
}

std::set<std::string> RequiredNames()
{
    std::set<std::string> names(std::begin(kPlainNames), std::end(kPlainNames));
    names.insert(std::begin(kCppNames), std::end(kCppNames));
    const auto insertType = [&names](const std::string& type) {
        for (const char* prefix : {"vtable for qel::", "typeinfo for qel::", "typeinfo name for qel::"}) {
            names.insert(prefix + type);
        }
    };
    for (const char* type : kPolymorphicClasses) {
        insertType(type);
    }
    for (const char* message : kMessages) {
        insertType(message);
    }
    return names;
}

std::string MessagePattern()
{
    std::string messages;
    for (const char* message : kMessages) {
        messages += (messages.empty() ? "" : "|") + std::string(message);
    }
    return "(" + messages + ")";
}

// What the generated code adds: members, default instances and enum functions of the messages, the protobuf
// templates that return one, and the schema's table.
class GeneratedNames {
public:
    GeneratedNames()
    {
        const std::string message = MessagePattern();
        const std::string pattern = "^(qel::" + message + "(DefaultTypeInternal)?::.*|" +  //
                                    "qel::_" + message + "_default_instance_|" +
                                    "qel::(HDCMessage|PPCMessage)_(MsgType|ProcessType)_[A-Za-z_]+(\\(.*\\))?|" +
                                    "qel::" + message + "( const)?[*&] google::protobuf::.*|" +
                                    "descriptor_table_qel_5fmessage_2eproto)$";
        EXPECT_EQ(regcomp(&pattern_, pattern.c_str(), REG_EXTENDED | REG_NOSUB), 0);
    }
    ~GeneratedNames() { regfree(&pattern_); }
    GeneratedNames(const GeneratedNames&) = delete;
    GeneratedNames& operator=(const GeneratedNames&) = delete;

    bool Contain(const std::string& name) const { return regexec(&pattern_, name.c_str(), 0, nullptr, 0) == 0; }

private:
    regex_t pattern_;
};

TEST(Exports, EveryNameOfTheInterfaceIsThere)
{
    const std::set<std::string> exported = ExportedNames();
    for (const std::string& name : RequiredNames()) {
        EXPECT_EQ(exported.count(name), 1U) << name;
    }
}

TEST(Exports, NothingElseIsThere)
{
    const std::set<std::string> exported = ExportedNames();
    const std::set<std::string> required = RequiredNames();
    const GeneratedNames generated;
    EXPECT_GE(exported.size(), required.size());
    for (const std::string& name : exported) {
        EXPECT_TRUE(required.count(name) == 1 || generated.Contain(name)) << name;
    }
}

TEST(Exports, EveryMessageClassIsComplete)
{
    const std::set<std::string> exported = ExportedNames();
    for (const std::string message : kMessages) {
        const std::string name = "qel::" + message;
        for (const std::string& member :
             {"::~" + message + "()", "::" + message + "(" + name + " const&)", std::string("::Clear()"),
              "::CopyFrom(" + name + " const&)", std::string("::ByteSizeLong() const"),
              std::string("::IsInitialized() const"), std::string("::GetMetadata() const")}) {
            EXPECT_EQ(exported.count(name + member), 1U) << name << member;
        }
    }
}

// Two words in front, then the two forms of the destructor.
TEST(Exports, DestructorIsTheOnlyVirtualOperation)
{
    std::map<std::string, uint64_t> sizes;
    for (const Symbol& symbol : ReadExports()) {
        sizes[symbol.name] = symbol.size;
    }
    for (const std::string type : kPolymorphicClasses) {
        EXPECT_EQ(sizes["vtable for qel::" + type], 4 * sizeof(void*)) << type;
    }
}

// An indirect or unique symbol would not be bound to the definition that an embedding process brings.
TEST(Exports, SymbolsAreOrdinaryFunctionsAndObjects)
{
    for (const Symbol& symbol : ReadExports()) {
        EXPECT_NE(std::string("TWVDBR").find(symbol.type), std::string::npos) << symbol.type << ' ' << symbol.name;
    }
}

// The logging library of a host has what the interface between the two says, and nothing of the stand-in's own.
TEST(Imports, LoggingLibraryOfAHostIsEnough)
{
    const std::set<std::string> ofAHost = {"vlog_init",     "vlog_getlevel",  "CheckLogLevel",  "VlogDebugInner",
                                           "VlogInfoInner", "VlogWarnInner",  "VlogErrorInner", "VlogEventInner",
                                           "VlogInner",     "VlogWithKVInner"};
    std::set<std::string> needed;
    for (const Symbol& symbol : ReadSymbols("--undefined-only")) {
        const bool isOfTheLog =
            symbol.name.rfind("vlog_", 0) == 0 || symbol.name.rfind("Vlog", 0) == 0 || symbol.name == "CheckLogLevel";
        if (isOfTheLog && symbol.type != 'w') {
            needed.insert(symbol.name);
        }
    }
    EXPECT_EQ(needed, ofAHost);
}

// Whatever ends, ends because something has happened: nothing sleeps or waits with a time limit. The exception is poll,
// for the pause after an accept that found no descriptor or memory.
TEST(Imports, OnlyPollWaitsForTimeToPass)
{
    const std::vector<std::string> parts = {"sleep", "timed", "clock", "wait_until", "wait_for", "select",
                                            "ppoll", "epoll", "alarm", "timer",      "yield",    "setsockopt"};
    for (const Symbol& symbol : ReadSymbols("--undefined-only")) {
        for (const std::string& part : parts) {
            EXPECT_EQ(symbol.name.find(part), std::string::npos) << symbol.name;
        }
    }
}

// ---- Return types and constness, which names do not show: a change does not compile ------------------------------

template <typename Wanted, typename Function>
constexpr bool Is(Function)
{
    return std::is_same<Wanted, Function>::value;
}

using LogFn = void (*)(const char*, const char*, int, const char*, ...);
using StatusLogFn = void (*)(const char*, const char*, int, uint32_t, const char*, ...);
using TraceLogFn = void (*)(const char*, const char*, int, const char*, const char*, ...);
using TrimFn = std::string& (*)(std::string&);

static_assert(Is<LogFn>(static_cast<LogFn>(&QEL_LOG_IMPL)), "");
static_assert(Is<StatusLogFn>(static_cast<StatusLogFn>(&QEL_LOG_IMPL)), "");
static_assert(Is<LogFn>(&QEL_EVENT_LOG_IMPL), "");
static_assert(Is<TraceLogFn>(&QEL_TRACE_LOG_IMPL), "");
static_assert(Is<LogFn>(&QEL_OPLOG_IMPL), "");

static_assert(Is<TrimFn>(&qel::Trim) && Is<TrimFn>(&qel::LTrim) && Is<TrimFn>(&qel::RTrim), "");
static_assert(Is<void (*)(std::string&, const std::string&, const std::string&)>(&qel::ReplaceAllSubStrDistinct), "");
static_assert(Is<std::string (*)(const std::string&)>(&qel::RemoveEscapeChar), "");

using qel::StatusFactory;
static_assert(Is<StatusFactory& (*)()>(&StatusFactory::GetInstance), "");
static_assert(Is<void (StatusFactory::*)(uint32_t, const std::string&)>(&StatusFactory::RegisterErrorNo), "");
static_assert(Is<std::string (StatusFactory::*)(uint32_t)>(&StatusFactory::GetErrDesc), "");
static_assert(Is<std::string (*)(uint32_t)>(&StatusFactory::GetErrCodeDesc), "");
static_assert(!std::is_polymorphic<StatusFactory>::value, "");

using qel::QELLog;
static_assert(Is<QELLog& (*)()>(&QELLog::GetInstance), "");
static_assert(Is<void (QELLog::*)()>(&QELLog::Init), "");
static_assert(Is<uint32_t (QELLog::*)()>(&QELLog::QELGetCurLogLevel), "");
static_assert(Is<int (QELLog::*)()>(&QELLog::QELRefreshLevel), "");
static_assert(Is<bool (QELLog::*)(uint32_t)>(&QELLog::QELLogOutputEnable), "");
static_assert(Is<void (QELLog::*)(int, uint32_t, const char*, const char*)>(&QELLog::QELSaveLog), "");
static_assert(!std::is_polymorphic<QELLog>::value, "");

using qel::PpcInterface;
static_assert(Is<uint32_t (PpcInterface::*)(void*, const PPCMessage&)>(&PpcInterface::SendMsg), "");
static_assert(Is<uint32_t (PpcInterface::*)(void*, PPCMessage&)>(&PpcInterface::RecvMsg), "");
static_assert(std::has_virtual_destructor<PpcInterface>::value, "");

using qel::PpcServer;
static_assert(std::is_base_of<PpcInterface, PpcServer>::value, "");
static_assert(Is<PpcServer& (*)()>(&PpcServer::GetInstance), "");
static_assert(Is<uint32_t (PpcServer::*)(uint32_t)>(&PpcServer::CreateServer), "");
static_assert(Is<uint32_t (PpcServer::*)()>(&PpcServer::AcceptConnection), "");
static_assert(Is<void (PpcServer::*)(uint32_t, uint32_t, void* const&)>(&PpcServer::SetPpcSession), "");
static_assert(Is<void* (PpcServer::*)(uint32_t, uint32_t)>(&PpcServer::GetPpcSession), "");
static_assert(Is<uint32_t (PpcServer::*)(const PPCMessage&)>(&PpcServer::SendData), "");
static_assert(Is<void (PpcServer::*)(void* const&)>(&PpcServer::CloseSomeSession), "");
static_assert(Is<void (PpcServer::*)(void* const&)>(&PpcServer::RemoveFromPpcSessionList), "");
static_assert(Is<uint32_t (PpcServer::*)()>(&PpcServer::Destroy), "");
static_assert(Is<void (PpcServer::*)(void* const&, uint64_t)>(&PpcServer::RecvData), "");
static_assert(Is<void (PpcServer::*)(const PPCMessage&)>(&PpcServer::PPCSerMsgProc), "");
static_assert(Is<void (PpcServer::*)(uint32_t, void (*)(const PPCMessage&))>(&PpcServer::RegPPCSerMsgProcFunc), "");
static_assert(Is<void (PpcServer::*)()>(&PpcServer::JoinAllPPCRcvThreads), "");
static_assert(Is<bool (PpcServer::*)() const>(&PpcServer::IsPPCServerRunning), "");

using qel::PpcClient;
using Type = PPCMessage::ProcessType;
static_assert(std::is_base_of<PpcInterface, PpcClient>::value, "");
static_assert(Is<PpcClient* (*)()>(&PpcClient::GetInstance), "");
static_assert(Is<void* (PpcClient::*)(uint32_t, Type)>(&PpcClient::GetPpcSession), "");
static_assert(Is<uint32_t (PpcClient::*)(void*&, const PPCMessage&)>(&PpcClient::SendData), "");
static_assert(Is<uint32_t (PpcClient::*)(uint32_t, GakWaitType)>(&PpcClient::RecvData), "");
static_assert(Is<uint32_t (PpcClient::*)(uint32_t, void*&, const Type&, const PPCMessage&)>(&PpcClient::RecvMsgProc),
              "");
static_assert(Is<void (PpcClient::*)()>(&PpcClient::Destroy), "");
static_assert(Is<Type (PpcClient::*)(GakWaitType)>(&PpcClient::GetPPCProcessType), "");
static_assert(Is<uint32_t (PpcClient::*)(uint32_t, GakWaitType, PPCMessage::MsgType)>(&PpcClient::SendPpcMsg), "");
static_assert(Is<uint32_t (PpcClient::*)(uint32_t, GakWaitType)>(&PpcClient::GakWaitForShutdownProc), "");
static_assert(Is<uint32_t (PpcClient::*)(uint32_t, GakWaitType)>(&PpcClient::SendHeartbeat), "");
static_assert(Is<uint32_t (PpcClient::*)(uint32_t, GakWaitType)>(&PpcClient::SendAbnormalMsg), "");
static_assert(Is<uint32_t (PpcClient::*)(std::vector<std::string>&, uint32_t)>(&PpcClient::CreateOrFindCustPid), "");

}  // namespace

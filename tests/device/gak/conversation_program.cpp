// The daemon and the worker of conversation_test, told what to do by lines on standard input; they answer and report on
// standard output.
//
//   conversation_program daemon
//   conversation_program worker DEVICE TYPE      ends with the end of GakWaitForShutdown
//   conversation_program reporter DEVICE TYPE    never waits for the shutdown; ends with its standard input

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gak.h"
#include "ppc_server.h"
#include "process.h"

namespace {

constexpr uint32_t kServerId = 19280;

// One line, whole even when several threads write.
void Say(const std::ostringstream& line)
{
    static std::mutex* const mutex = new std::mutex;  // outlives the exit handlers
    std::lock_guard<std::mutex> lock(*mutex);
    const std::string text = line.str() + "\n";
    if (write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        _exit(99);
    }
}

void Say(const std::string& what, uint32_t result)
{
    std::ostringstream line;
    line << what << ' ' << std::hex << result;
    Say(line);
}

void SayMessage(const qel::PPCMessage& msg)
{
    std::ostringstream line;
    line << "message " << msg.type() << ' ' << msg.src_id() << ' ' << msg.dest_id() << ' ' << msg.proc_type() << ' '
         << msg.sub_proc_pid() << ' ' << msg.host_pid();
    for (const std::string& name : msg.lib_names().lib_name()) {
        line << ' ' << name;
    }
    Say(line);
}

void CreateServer()
{
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    for (uint32_t type = qel::PPCMessage::START_RSP; type <= qel::PPCMessage::SOCKET_CLOSE; ++type) {
        server.RegPPCSerMsgProcFunc(type, &SayMessage);
    }
    Say("created", server.CreateServer(kServerId));
}

void Send(std::istringstream& arguments)
{
    int type = 0;
    uint32_t device = 0;
    int procType = 0;
    uint32_t pid = 0;
    arguments >> type >> device >> procType >> pid;
    qel::PPCMessage msg;
    msg.set_type(static_cast<qel::PPCMessage::MsgType>(type));
    msg.set_dest_id(device);
    msg.set_proc_type(static_cast<qel::PPCMessage::ProcessType>(procType));
    msg.set_sub_proc_pid(pid);
    Say("sent", qel::PpcServer::GetInstance().SendData(msg));
}

int RunDaemon()
{
    CreateServer();
    for (std::string text; std::getline(std::cin, text);) {
        std::istringstream arguments(text);
        std::string command;
        arguments >> command;
        if (command == "send") {
            Send(arguments);
        } else if (command == "create") {
            CreateServer();
        } else if (command == "destroy") {
            Say("destroyed", qel::PpcServer::GetInstance().Destroy());
        } else if (command == "resources") {
            qel::PpcServer::GetInstance().JoinAllPPCRcvThreads();
            std::ostringstream line;
            line << "resources " << gaktest::ThreadCount() << ' ' << gaktest::OpenDescriptors();
            Say(line);
        }
    }
    return 0;
}

void AskForCustomProcess(uint32_t hostPid, std::vector<std::string> names)
{
    std::vector<const char*> list;
    for (const std::string& name : names) {
        list.push_back(name.c_str());
    }
    Say("custom", CreateOrFindCustPid(static_cast<uint32_t>(list.size()), list.data(), hostPid));
}

void ObeyWorkerCommands(uint32_t device, GakWaitType type)
{
    for (std::string text; std::getline(std::cin, text);) {
        std::istringstream arguments(text);
        std::string command;
        arguments >> command;
        if (command == "heartbeat") {
            Say("heartbeat", GakHeartbeatSend(device, type));
        } else if (command == "abnormal") {
            Say("abnormal", GakDestory(device, type));
        } else if (command == "custom") {
            uint32_t hostPid = 0;
            arguments >> hostPid;
            std::vector<std::string> names;
            for (std::string name; arguments >> name;) {
                names.push_back(name);
            }
            std::thread(AskForCustomProcess, hostPid, names).detach();
        }
    }
}

int RunWorker(uint32_t device, GakWaitType type)
{
    std::thread(ObeyWorkerCommands, device, type).detach();
    const uint32_t result = GakWaitForShutdown(device, type);
    Say("waited", result);
    return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || ppcInit() != 0) {
        return 2;
    }
    if (args[0] == "daemon") {
        return RunDaemon();
    }
    const auto device = static_cast<uint32_t>(std::stoul(args.at(1)));
    const auto type = static_cast<GakWaitType>(std::stoul(args.at(2)));
    if (args[0] == "worker") {
        return RunWorker(device, type);
    }
    ObeyWorkerCommands(device, type);
    return 0;
}

// A program that compiles the generated message classes once more: two copies of the schema in one process. Registering
// both would end the program before main.

#include <cstdio>
#include <string>

#include "gak.h"
#include "ppc_server.h"
#include "qel_message.pb.h"

int main()
{
    qel::PPCMessage msg;
    msg.set_type(qel::PPCMessage::HEARTBEAT);
    msg.set_src_id(3);
    const std::string encoded = msg.SerializeAsString();
    qel::PPCMessage decoded;
    if (!decoded.ParseFromString(encoded) || decoded.src_id() != 3 || msg.GetDescriptor()->full_name().empty()) {
        fprintf(stderr, "the program's own messages do not work\n");
        return 1;
    }
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    if (ppcInit() != 0 || server.CreateServer(19280) != 0x1011000 || GakHeartbeatSend(3, 0) != 0 ||
        server.Destroy() != 0x1011000) {
        fprintf(stderr, "the library does not work\n");
        return 2;
    }
    return 0;
}

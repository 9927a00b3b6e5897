/* A C program that includes the plain headers and calls what they declare. Prints and counts what is wrong. */

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "gak.h"
#include "ppc.h"

static int failures = 0;

static void Check(int holds, const char* what)
{
    if (!holds) {
        fprintf(stderr, "failed: %s\n", what);
        ++failures;
    }
}
#define CHECK(condition) Check((condition), #condition)

_Static_assert(_Generic((GakWaitType)0, uint32_t : 1, default : 0), "GakWaitType is a uint32_t");
_Static_assert(PPC_OK == 0 && PPC_ERR_INVALID_VALUE == 3 && PPC_ERR_NO_RESOURCE == 6, "result codes");
_Static_assert(PPC_ERR_SOCKET_CREATE == 18 && PPC_ERR_SOCKET_CONNECT == 19 && PPC_ERR_SOCKET_BIND == 20,
               "result codes");
_Static_assert(PPC_ERR_SOCKET_LISTEN == 21 && PPC_ERR_SOCKET_ACCEPT == 22 && PPC_ERR_SOCKET_PATH == 24, "result codes");
_Static_assert(PPC_ERR_SOCKET_CLOSED == 25 && PPC_ERR_RECV == 26 && PPC_ERR_SEND == 27, "result codes");
_Static_assert(PPC_ERR_NO_MEMORY == 40, "result codes");

/* A declaration of another type would not initialise these. */
static uint32_t (*const kControl[])(uint32_t, GakWaitType) = {GakWaitForShutdown, GakHeartbeatSend, GakDestory};
static uint32_t (*const kCreate)(uint32_t, const char* const*, uint32_t) = CreateOrFindCustPid;
static int (*const kPlain[])(void) = {ppcInit, drvPpcCreateDir, drvPpcInit, drvPpcUninit};
static int (*const kClientCreate)(void**, int, int) = drvPpcClientCreate;

static void ControlFunctionsRefuseABadDevice(void)
{
    for (size_t i = 0; i < sizeof(kControl) / sizeof(kControl[0]); ++i) {
        CHECK(kControl[i](4, 1) == 0x1093031);
    }
    CHECK(kCreate(1, NULL, 0) == 0x1093031);
}

static void PathNeedsThePreparedDirectory(void)
{
    struct sockaddr_un address = {0};
    uint32_t length = 1;
    CHECK(drvPpcSetSockPath(&address, 1, 0x4B50, &length) == PPC_ERR_SOCKET_PATH);
    CHECK(length == 0);
    for (size_t i = 0; i < sizeof(kPlain) / sizeof(kPlain[0]); ++i) {
        CHECK(kPlain[i]() == 0);
    }
    CHECK(drvPpcSetSockPath(&address, 1, 0x4B50, &length) == PPC_OK);
    CHECK(strcmp(address.sun_path, "/home/KrovaUser/qel_ppc/sock_server_19280") == 0);
}

static void FrameCrossesASocket(void)
{
    int fds[2];
    char text[6] = "";
    uint32_t length = 0;
    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    CHECK(drvPpcSocketSend(fds[0], "hello", 5) == PPC_OK);
    CHECK(drvPpcSocketRecvPeek(fds[1], &length) == PPC_OK);
    CHECK(length == 5);
    CHECK(drvPpcSocketRecv(fds[1], text, 5, &length) == PPC_OK);
    CHECK(strcmp(text, "hello") == 0);
    close(fds[0]);
    close(fds[1]);
}

static void EndpointsAreOpaquePointers(void)
{
    PpcServerHead* server = NULL;
    PpcSession* session = NULL;
    PpcMsg* msg = NULL;
    int tag = 0;
    void* client = &tag;
    CHECK(drvPpcServerCreate(1, &server) == PPC_OK);
    CHECK(kClientCreate(&client, 0, 0) == PPC_OK);
    CHECK(client == &tag);
    CHECK(drvPpcSessionConnect(1, &session) == PPC_OK);
    CHECK(drvPpcAllocMsg(session, &msg, 1) == PPC_OK);
    CHECK(drvPpcFreeMsg(msg) == PPC_OK);
    CHECK(drvPpcSessionDestroy(session) == PPC_OK);
    CHECK(drvPpcServerDestroy(server) == PPC_OK);
}

int main(void)
{
    ControlFunctionsRefuseABadDevice();
    PathNeedsThePreparedDirectory();
    FrameCrossesASocket();
    EndpointsAreOpaquePointers();
    return failures == 0 ? 0 : 1;
}

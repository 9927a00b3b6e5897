/*
 * A small complete worker: it reports its start, sends heartbeats, asks for the custom process when it is given
 * libraries, and ends when the daemon orders the shutdown, or with a report when somebody else sends it SIGTERM.
 *
 * GakWaitForShutdown and CreateOrFindCustPid block, so each has a thread of its own; the main thread has the former.
 * No thread is joined: all of them may be inside the library when the process exits.
 */

#define _POSIX_C_SOURCE 200809L

#include <gakppc/gak.h>
#include <gakppc/ppc.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* What the exit status tells the daemon. */
enum { EXIT_ORDERLY = 0, EXIT_LOST = 1, EXIT_USAGE = 2, EXIT_ABNORMAL = 3 };

enum { HEARTBEAT_SECONDS = 1 };

static const char* const TYPE_NAMES[] = {"ZOLT", "COMPUTE", "CUSTOM_COMPUTE"}; /* by GakWaitType */
enum { TYPES = sizeof(TYPE_NAMES) / sizeof(TYPE_NAMES[0]) };

static uint32_t device;
static GakWaitType type;
static const char* const* libraries;
static uint32_t libraryCount;
static sigset_t stopSignals;

static void Say(const char* text)
{
    printf("worker: device %u %s pid %d %s\n", device, TYPE_NAMES[type], (int)getpid(), text);
    fflush(stdout);
}

static void StartThread(void* (*body)(void*))
{
    pthread_t thread;
    if (pthread_create(&thread, NULL, body, NULL) != 0 || pthread_detach(thread) != 0) {
        Say("cannot start a thread");
        exit(EXIT_LOST);
    }
}

static void* AskForCustomProcess(void* unused)
{
    const uint32_t result = CreateOrFindCustPid(libraryCount, libraries, (uint32_t)getppid());
    Say(result == 0 ? "custom process ready" : "custom process could not be asked for");
    return unused;
}

/* The request is refused as long as this process has sent nothing, so it waits for the first heartbeat. */
static void* SendHeartbeats(void* unused)
{
    for (bool asked = libraryCount == 0;;) {
        sleep(HEARTBEAT_SECONDS);
        const bool sent = GakHeartbeatSend(device, type) == 0; /* if not, the main thread learns it as well */
        if (sent && !asked) {
            asked = true;
            StartThread(AskForCustomProcess);
        }
    }
    return unused;
}

/*
 * GakDestory only tells the daemon; to leave is up to the worker. By _exit: exit closes the connections, which ends the
 * main thread's wait, and that thread would leave with a status of its own.
 */
static void* LeaveOnSignal(void* unused)
{
    int number = 0;
    sigwait(&stopSignals, &number);
    GakDestory(device, type);
    Say("abnormal end");
    _exit(EXIT_ABNORMAL);
    return unused;
}

static bool ParseArguments(int argc, char** argv)
{
    if (argc < 3 || strlen(argv[1]) != 1 || argv[1][0] < '0' || argv[1][0] > '3') {
        return false;
    }
    device = (uint32_t)(argv[1][0] - '0');
    while (type < TYPES && strcmp(argv[2], TYPE_NAMES[type]) != 0) {
        ++type;
    }
    libraries = (const char* const*)&argv[3];
    libraryCount = (uint32_t)(argc - 3);
    return type < TYPES;
}

int main(int argc, char** argv)
{
    if (!ParseArguments(argc, argv)) {
        fprintf(stderr,
                "Usage: %s DEVICE TYPE [LIBRARY...]\n"
                "DEVICE is 0 to 3, TYPE is ZOLT, COMPUTE or CUSTOM_COMPUTE.\n"
                "Exit status: 0 shut down by the daemon, 1 no daemon, 2 usage, 3 abnormal end\n",
                argv[0]);
        return EXIT_USAGE;
    }
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, NULL); /* before the first thread: all threads inherit it */
    if (ppcInit() != 0) {
        Say("cannot use the socket directory");
        return EXIT_LOST;
    }
    StartThread(LeaveOnSignal);
    StartThread(SendHeartbeats);
    const uint32_t result = GakWaitForShutdown(device, type);
    Say(result == 0 ? "shut down" : "lost the daemon");
    return result == 0 ? EXIT_ORDERLY : EXIT_LOST;
}

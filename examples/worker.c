/*
 * The smallest complete worker: it reports its start, sends heartbeats, asks for the custom process if it is told to,
 * and ends when the daemon orders the shutdown.
 *
 * Three threads, because two of the calls block:
 *   - one inside GakWaitForShutdown for the worker's whole life; it receives everything that the daemon sends;
 *   - one inside CreateOrFindCustPid, only if asked for;
 *   - the main thread, which works and sends heartbeats.
 */

#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <gakppc/gak.h>
#include <gakppc/ppc.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

/* What the exit status tells the daemon. */
enum { EXIT_ORDERLY = 0, EXIT_LOST = 1, EXIT_USAGE = 2, EXIT_ABNORMAL = 3 };

enum { BEATS_BEFORE_ABNORMAL = 3 };

static const char* const TYPE_NAMES[] = {"ZOLT", "COMPUTE", "CUSTOM_COMPUTE"}; /* by GakWaitType */

static struct {
    uint32_t device;
    GakWaitType type;
    long intervalMs;
    bool abnormal;
    uint32_t libCount;
    const char* const* libs;
} options = {.intervalMs = 1000};

/* How the wait for the shutdown order ended; the main thread waits for it between two heartbeats. */
static pthread_mutex_t endMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t endCond;
static bool ended;
static uint32_t endResult;

static void Say(const char* text)
{
    printf("gak_worker: device %u %s pid %d %s\n", options.device, TYPE_NAMES[options.type], (int)getpid(), text);
}

static void* WaitForShutdown(void* unused)
{
    const uint32_t result = GakWaitForShutdown(options.device, options.type);
    pthread_mutex_lock(&endMutex);
    ended = true;
    endResult = result;
    pthread_cond_signal(&endCond);
    pthread_mutex_unlock(&endMutex);
    return unused;
}

/* Blocks without a time limit, so it must not hold up the heartbeats. */
static void* AskForCustomProcess(void* unused)
{
    const uint32_t result = CreateOrFindCustPid(options.libCount, options.libs, (uint32_t)getppid());
    Say(result == 0 ? "CUSTOM_READY" : "CUSTOM_FAILED");
    return unused;
}

/* Waits for the end of the wait or for one interval; true when the wait has ended. */
static bool EndedWithinInterval(void)
{
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += options.intervalMs % 1000 * 1000000;
    deadline.tv_sec += options.intervalMs / 1000 + deadline.tv_nsec / 1000000000;
    deadline.tv_nsec %= 1000000000;

    pthread_mutex_lock(&endMutex);
    while (!ended && pthread_cond_timedwait(&endCond, &endMutex, &deadline) != ETIMEDOUT) {
    }
    const bool result = ended;
    pthread_mutex_unlock(&endMutex);
    return result;
}

/* The threads end with the process: nobody joins them. */
static bool StartThread(void* (*body)(void*))
{
    pthread_t thread;
    return pthread_create(&thread, NULL, body, NULL) == 0 && pthread_detach(thread) == 0;
}

static int Work(void)
{
    for (int beats = 0; !EndedWithinInterval();) {
        if (GakHeartbeatSend(options.device, options.type) != 0) {
            continue; /* the daemon is gone, or is closing the connection: the other thread learns which */
        }
        ++beats;
        /* The library refuses the request of a process that has sent nothing yet, so a heartbeat goes first. */
        if (beats == 1 && options.libCount > 0 && !StartThread(AskForCustomProcess)) {
            return EXIT_LOST;
        }
        if (options.abnormal && beats == BEATS_BEFORE_ABNORMAL) {
            GakDestory(options.device, options.type); /* only tells the daemon; leaving is up to us */
            return EXIT_ABNORMAL;
        }
    }
    return endResult == 0 ? EXIT_ORDERLY : EXIT_LOST;
}

static bool ParseNumber(const char* text, long lowest, long highest, long* number)
{
    char* end = NULL;
    errno = 0;
    *number = strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && *number >= lowest && *number <= highest;
}

static bool ParseType(const char* text, GakWaitType* type)
{
    for (*type = 0; *type < sizeof(TYPE_NAMES) / sizeof(TYPE_NAMES[0]); ++*type) {
        if (strcmp(text, TYPE_NAMES[*type]) == 0) {
            return true;
        }
    }
    return false;
}

static bool ParseOptions(int argc, char** argv)
{
    long device = 0;
    if (argc < 3 || !ParseNumber(argv[1], 0, 3, &device) || !ParseType(argv[2], &options.type)) {
        return false;
    }
    options.device = (uint32_t)device;
    for (int i = 3; i < argc; ++i) {
        if (strcmp(argv[i], "--abnormal") == 0) {
            options.abnormal = true;
        } else if (strcmp(argv[i], "--interval") == 0 && i + 1 < argc) {
            if (!ParseNumber(argv[++i], 1, 3600000, &options.intervalMs)) {
                return false;
            }
        } else if (strcmp(argv[i], "--custom") == 0 && i + 1 < argc) {
            options.libCount = (uint32_t)(argc - i - 1);
            options.libs = (const char* const*)&argv[i + 1];
            return true;
        } else {
            return false;
        }
    }
    return true;
}

int main(int argc, char** argv)
{
    if (!ParseOptions(argc, argv)) {
        fprintf(stderr,
                "Usage: %s DEVICE TYPE [--interval MILLISECONDS] [--abnormal] [--custom LIBRARY...]\n"
                "  DEVICE      0 to 3\n"
                "  TYPE        ZOLT, COMPUTE or CUSTOM_COMPUTE\n"
                "  --interval  time between two heartbeats (1000)\n"
                "  --abnormal  report an abnormal end after %d heartbeats, and leave\n"
                "  --custom    ask for the device's custom process with these libraries\n"
                "Exit status: 0 shut down by the daemon, 1 connection lost, 2 usage, 3 abnormal end\n",
                argv[0], BEATS_BEFORE_ABNORMAL);
        return EXIT_USAGE;
    }
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ); /* whole lines, also into a pipe */

    pthread_condattr_t monotonic;
    pthread_condattr_init(&monotonic);
    pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
    pthread_cond_init(&endCond, &monotonic);
    pthread_condattr_destroy(&monotonic);

    if (ppcInit() != 0 || !StartThread(WaitForShutdown)) {
        fprintf(stderr, "%s: cannot start\n", argv[0]);
        return EXIT_LOST;
    }
    return Work();
}

// The life of the driver's records under every memory order that the language permits: calls in flight, references,
// the end, the quarantine. What is run is the shipped source, read with other atomics; see relacy_std.h.

#include "relacy_std.h"

#include "memguard.h"
#include "ppc.h"

// The bounds checks are not what is judged here.
extern "C" int memset_s(void* dest, size_t destMax, int c, size_t count)
{
    memset(dest, c, count);
    return count <= destMax ? 0 : -1;
}

// The process does not fork here.
#define GAKPPC_OWN_PID_H
namespace qel {
inline uint32_t OwnPid()
{
    return static_cast<uint32_t>(getpid());
}
}  // namespace qel

namespace gaktest {
int CloseDescriptor(int fd);
int ShutDownDescriptor(int fd, int how);
void FreeRecord(void* record, const rl::debug_info& caller);
}  // namespace gaktest

#undef free
#define free(record) gaktest::FreeRecord(record, $)
#define close gaktest::CloseDescriptor
#define shutdown gaktest::ShutDownDescriptor
#undef pthread_mutex_lock  // Relacy's, as the next
#define pthread_mutex_lock(handle) (handle)->lock()
#undef pthread_mutex_init
#define pthread_mutex_init(handle, attributes) static_cast<void>(handle)
#define std relacy_std
#include "ppc_record.cpp"  // NOLINT(bugprone-suspicious-include): the source that ships
#undef std
#undef pthread_mutex_init
#undef pthread_mutex_lock
#undef shutdown
#undef close
#undef free

namespace gaktest {
namespace {

using ppc::PpcCall;
using ppc::PpcRecord;
using ppc::PpcRecordRef;
using ppc::PpcSessionRef;
using ppc::RecordDirectory;

constexpr int kMaxDescriptors = 4;
constexpr PpcRecord::Kind kSession = PpcRecord::Kind::kSession;

// Every use reads, closing writes: the two must be ordered.
struct Descriptor {
    rl::var<int> isOpen{1};
    int timesClosed = 0;
};

// What one iteration has made.
struct World {
    Descriptor descriptors[kMaxDescriptors];
    std::set<void*> records;

    // Over whatever a failed iteration has left.
    explicit World(size_t kept) { new (&ppc::sessions) RecordDirectory(kept); }
    ~World()
    {
        for (void* record : std::set<void*>(records)) {
            FreeRecord(record, rl::debug_info("end of the iteration"));
        }
        ppc::sessions.~RecordDirectory();
        new (&ppc::sessions) RecordDirectory(0);
    }

    PpcSession* CreateSession(int fd)
    {
        ppc::OwnFd descriptor(fd);
        PpcSession* session = nullptr;
        RL_ASSERT(ppc::CreateRecord(kSession, descriptor, &session) == PPC_OK);
        records.insert(PpcRecord::Of(session));
        return session;
    }
};

World* world = nullptr;

// What the driver's functions do with a record.
bool End(PpcSession* session)
{
    const PpcRecordRef record = PpcRecord::MarkEnded(kSession, session);
    if (!record) {
        return false;
    }
    record->Revoke();
    return true;
}

void Use(PpcSession* session)
{
    const PpcCall call(PpcRecord::Of(session));
    if (call.Fd() >= 0) {
        RL_ASSERT(world->descriptors[call.Fd()].isOpen($).load() == 1);
    }
}

template <typename Suite, rl::thread_id_t threads>
struct RecordSuite : rl::test_suite<Suite, threads> {
    static constexpr size_t kKept = 0;

    void before()
    {
        world = new World(Suite::kKept);
        static_cast<Suite*>(this)->Begin();
    }
    void after()
    {
        static_cast<Suite*>(this)->Finish();
        delete world;
    }
    void Finish() {}
};

}  // namespace

int CloseDescriptor(int fd)
{
    Descriptor& descriptor = world->descriptors[fd];
    descriptor.isOpen($).store(0);
    ++descriptor.timesClosed;
    return 0;
}

int ShutDownDescriptor(int fd, int /*how*/)
{
    RL_ASSERT(world->descriptors[fd].isOpen($).load() == 1);
    return 0;
}

void FreeRecord(void* record, const rl::debug_info& caller)
{
    if (record == nullptr) {
        return;
    }
    world->records.erase(record);
    auto* session = reinterpret_cast<PpcSession*>(static_cast<char*>(record) + sizeof(PpcRecord));
    session->~PpcSession();
    static_cast<PpcRecord*>(record)->~PpcRecord();
    rl::rl_free(record, caller);
}

namespace {

// A session is ended while two calls on it are on their way: its descriptor is closed once, behind both.
struct EndAgainstCalls : RecordSuite<EndAgainstCalls, 3> {
    PpcSession* session;
    PpcSessionRef held[2];

    void Begin()
    {
        session = world->CreateSession(0);
        held[0] = PpcSessionRef(session);
        held[1] = PpcSessionRef(session);
    }
    void thread(unsigned index)
    {
        if (index == 2) {
            RL_ASSERT(End(session));
        } else {
            Use(session);
            held[index] = PpcSessionRef();
        }
    }
    void Finish()
    {
        RL_ASSERT(world->descriptors[0].timesClosed == 1);
        RL_ASSERT(world->records.empty());
    }
};

// Copies of a reference come and go in several threads: the record is freed once, behind the last of them.
struct CopiesOfAReference : RecordSuite<CopiesOfAReference, 3> {
    PpcSession* session;
    PpcSessionRef held[3];

    void Begin()
    {
        session = world->CreateSession(0);
        held[0] = PpcSessionRef(session);
        held[1] = held[0];
        held[2] = held[0];
    }
    void thread(unsigned index)
    {
        const PpcSessionRef own = std::move(held[index]);
        const PpcSessionRef copy = own;  // NOLINT(performance-unnecessary-copy-initialization): it holds
        if (index == 0) {
            RL_ASSERT(End(session));
        }
    }
    void Finish()
    {
        RL_ASSERT(world->descriptors[0].timesClosed == 1);
        RL_ASSERT(world->records.empty());
    }
};

// Several threads end one session: one of them does.
struct EndsOnce : RecordSuite<EndsOnce, 3> {
    static constexpr size_t kKept = 1;
    PpcSession* session;
    int ends;

    void Begin()
    {
        session = world->CreateSession(0);
        ends = 0;
    }
    void thread(unsigned /*index*/) { ends += End(session) ? 1 : 0; }
    void Finish()
    {
        RL_ASSERT(ends == 1);
        RL_ASSERT(world->descriptors[0].timesClosed == 1);
    }
};

// A handle is used late: another thread ends a session that pushes it out of the quarantine.
struct LateReferenceAgainstQuarantine : RecordSuite<LateReferenceAgainstQuarantine, 3> {
    static constexpr size_t kKept = 1;
    PpcSession* first;
    PpcSession* second;

    void Begin()
    {
        first = world->CreateSession(0);
        second = world->CreateSession(1);
    }
    void thread(unsigned index)
    {
        if (index == 0) {
            RL_ASSERT(End(first));
        } else if (index == 1) {
            RL_ASSERT(End(second));
        } else {
            const PpcSessionRef late(first);
            if (late.IsHeld()) {
                Use(first);
            }
        }
    }
    void Finish()
    {
        RL_ASSERT(world->descriptors[0].timesClosed == 1);
        RL_ASSERT(world->descriptors[1].timesClosed == 1);
        RL_ASSERT(world->records.size() == 1);
    }
};

template <typename Suite>
bool Simulate(rl::iteration_t iterations, std::ostream& output)
{
    rl::test_params params;
    params.iteration_count = iterations;
    params.output_stream = &output;
    params.progress_stream = &output;
    return rl::simulate<Suite>(params);
}

// Silent when it passes. What was found is found again, and then printed with the way to it.
template <typename Suite>
bool Passes(const char* name, rl::iteration_t iterations)
{
    std::ostream silent(nullptr);
    const bool passed = Simulate<Suite>(iterations, silent) || Simulate<Suite>(iterations, std::cout);
    std::cout << name << (passed ? ": nothing found in " : ": found something within ") << iterations
              << " iterations\n";
    return passed;
}

}  // namespace
}  // namespace gaktest

int main(int count, char** words)
{
    using namespace gaktest;
    const rl::iteration_t iterations = count > 1 ? strtoull(words[1], nullptr, 10) : 20000;
    chosenWeakening = count > 2 ? static_cast<int>(strtol(words[2], nullptr, 10)) : 0;
    const bool passed = Passes<EndAgainstCalls>("EndAgainstCalls", iterations) &&
                        Passes<CopiesOfAReference>("CopiesOfAReference", iterations) &&
                        Passes<EndsOnce>("EndsOnce", iterations) &&
                        Passes<LateReferenceAgainstQuarantine>("LateReferenceAgainstQuarantine", iterations);
    std::cout.flush();
    _exit(passed ? 0 : 1);  // a failed iteration leaves its directory behind, which no destructor may touch
}

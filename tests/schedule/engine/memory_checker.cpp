#include "memory_checker.h"

#include "scheduler.h"

extern "C" const char __executable_start;
extern "C" const char __data_start;

namespace gaktest {
namespace {

constexpr size_t kGranule = 8;
constexpr int kAccessesKept = 8;
constexpr uint32_t kMaxCells = 60000;
constexpr uint32_t kIndexSize = 1U << 17;
constexpr uint32_t kMaxSyncObjects = 8000;
constexpr uintptr_t kDescriptors = 0x1000;  // no memory of the process lies that low
constexpr uintptr_t kDescriptorsEnd = kDescriptors + 4096 * kGranule;
constexpr size_t kMarkedAsFreed = 512;  // bytes of freed memory that nobody had used before

struct PastAccess {
    uintptr_t place;
    uint32_t tick;
    uint8_t thread;
    uint8_t bytes;  // one bit for each byte of the granule
    Access access;
};

// What is remembered of eight bytes.
struct Cell {
    uintptr_t address;
    SyncObject* syncObjects;
    int count;
    PastAccess accesses[kAccessesKept];
};

Cell cells[kMaxCells];
uint32_t cellCount = 0;
uint32_t cellIndex[kIndexSize];  // number of a cell plus one
SyncObject syncObjects[kMaxSyncObjects];
uint32_t syncObjectCount = 0;

uint32_t* SlotOf(uintptr_t address)
{
    uint64_t slot = ((address / kGranule) * 0x9E3779B97F4A7C15U) >> 40;
    for (;; ++slot) {
        uint32_t* entry = &cellIndex[slot % kIndexSize];
        if (*entry == 0 || cells[*entry - 1].address == address) {
            return entry;
        }
    }
}

Cell* FindCell(uintptr_t address)
{
    const uint32_t number = *SlotOf(address);
    return number == 0 ? nullptr : &cells[number - 1];
}

Cell& CellAt(uintptr_t address)
{
    uint32_t* slot = SlotOf(address);
    if (*slot == 0) {
        if (cellCount == kMaxCells) {
            Found("the run uses more memory than can be checked");
        }
        *slot = ++cellCount;
        cells[cellCount - 1].address = address;
    }
    return cells[*slot - 1];
}

bool Writes(Access access)
{
    return access == Access::kWrite || access == Access::kAtomicWrite || access == Access::kFree;
}

bool IsAtomic(Access access)
{
    return access == Access::kAtomicRead || access == Access::kAtomicWrite;
}

bool HappenedBefore(const PastAccess& past)
{
    return self->clock.HasSeen(past.thread, past.tick);
}

const char* Describe(Access access)
{
    switch (access) {
        case Access::kRead:
            return "read";
        case Access::kWrite:
            return "write";
        case Access::kAtomicRead:
            return "atomic read";
        case Access::kAtomicWrite:
            return "atomic write";
        case Access::kFree:
            return "free";
    }
    return "";
}

[[noreturn]] void FoundConflict(uintptr_t address, Access access, const PastAccess& past)
{
    if (address >= kDescriptors && address < kDescriptorsEnd) {
        const int fd = static_cast<int>((address - kDescriptors) / kGranule);
        if (past.access == Access::kFree) {
            Found("descriptor %d is used by thread %d after thread %d has closed it at {%lx}", fd, self->id,
                  past.thread, past.place);
        }
        Found("descriptor %d: %s by thread %d is not ordered after its use by thread %d at {%lx}", fd,
              Writes(access) ? "closing" : "use", self->id, past.thread, past.place);
    }
    if (past.access == Access::kFree) {
        Found("use after free: %s of %#lx by thread %d, which thread %d has freed at {%lx}", Describe(access), address,
              self->id, past.thread, past.place);
    }
    Found("data race: %s of %#lx by thread %d is not ordered after the %s by thread %d at {%lx}", Describe(access),
          address, self->id, Describe(past.access), past.thread, past.place);
}

bool IsConflict(const PastAccess& past, uint8_t bytes, Access access)
{
    if ((past.bytes & bytes) == 0) {
        return false;
    }
    if (past.access == Access::kFree) {
        return true;
    }
    return (Writes(access) || Writes(past.access)) && !(IsAtomic(access) && IsAtomic(past.access)) &&
           !HappenedBefore(past);
}

// Whether whatever conflicts with `past` from now on conflicts with the new access as well.
bool IsCovered(const PastAccess& past, uint8_t bytes, Access access)
{
    if ((past.bytes & ~bytes) != 0) {
        return false;
    }
    if (access == Access::kWrite || access == Access::kFree) {
        return true;  // it happened before, or there would have been a finding
    }
    return past.thread == self->id && past.access == access;
}

void Remember(Cell& cell, uint8_t bytes, Access access, uintptr_t place)
{
    int kept = 0;
    for (int entry = 0; entry < cell.count; ++entry) {
        if (!IsCovered(cell.accesses[entry], bytes, access)) {
            cell.accesses[kept++] = cell.accesses[entry];
        }
    }
    if (kept == kAccessesKept) {
        __builtin_memmove(&cell.accesses[0], &cell.accesses[1], sizeof(PastAccess) * (kAccessesKept - 1));
        --kept;
    }
    cell.accesses[kept] = {place, self->clock.at[self->id], static_cast<uint8_t>(self->id), bytes, access};
    cell.count = kept + 1;
}

void CheckCell(Cell& cell, uint8_t bytes, Access access, uintptr_t place)
{
    for (int entry = 0; entry < cell.count; ++entry) {
        const PastAccess& past = cell.accesses[entry];
        if (past.thread == self->id && past.tick == self->clock.at[self->id] && past.access == access &&
            (bytes & ~past.bytes) == 0) {
            return;
        }
        if (IsConflict(past, bytes, access)) {
            self->step.place = place;
            FoundConflict(cell.address, access, past);
        }
    }
    Remember(cell, bytes, access, place);
}

uint8_t BytesOf(uintptr_t granule, uintptr_t address, uintptr_t end)
{
    const unsigned first = address > granule ? static_cast<unsigned>(address - granule) : 0;
    const unsigned last = end < granule + kGranule ? static_cast<unsigned>(end - granule) : kGranule;
    return static_cast<uint8_t>((0xFFU << first) & (0xFFU >> (kGranule - last)));
}

// What only this thread sees: its stack and its thread-local objects.
bool IsOwn(uintptr_t address)
{
    const auto stack = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    return (address >= stack && address <= self->stackTop) ||
           (address >= self->threadLocals && address < self->threadLocals + 8192);
}

bool IsConstant(uintptr_t address)
{
    return address >= reinterpret_cast<uintptr_t>(&__executable_start) &&
           address < reinterpret_cast<uintptr_t>(&__data_start);
}

}  // namespace

void CheckAccess(uintptr_t address, size_t size, Access access, uintptr_t place)
{
    if (size == 0 || IsOwn(address) || IsConstant(address)) {
        return;
    }
    const uintptr_t end = address + size;
    for (uintptr_t granule = address & ~(kGranule - 1); granule < end; granule += kGranule) {
        CheckCell(CellAt(granule), BytesOf(granule, address, end), access, place);
    }
}

void CheckFree(uintptr_t address, size_t size, uintptr_t place)
{
    for (uintptr_t granule = address; granule < address + size; granule += kGranule) {
        Cell* cell = granule < address + kMarkedAsFreed ? &CellAt(granule) : FindCell(granule);
        if (cell != nullptr) {
            CheckCell(*cell, 0xFF, Access::kFree, place);
        }
    }
}

void ForgetMemory(uintptr_t address, size_t size)
{
    for (uintptr_t granule = address & ~(kGranule - 1); granule < address + size; granule += kGranule) {
        Cell* cell = FindCell(granule);
        if (cell == nullptr) {
            continue;
        }
        cell->count = 0;
        for (SyncObject* object = cell->syncObjects; object != nullptr; object = object->next) {
            object->released = VectorClock{};
            object->owner = -1;
        }
    }
}

uintptr_t DescriptorAddress(int fd)
{
    return kDescriptors + static_cast<uintptr_t>(fd) * kGranule;
}

SyncObject& SyncAt(const void* where)
{
    const auto address = reinterpret_cast<uintptr_t>(where);
    Cell& cell = CellAt(address & ~(kGranule - 1));
    for (SyncObject* object = cell.syncObjects; object != nullptr; object = object->next) {
        if (object->address == address) {
            return *object;
        }
    }
    if (syncObjectCount == kMaxSyncObjects) {
        Found("the run uses more mutexes and atomics than can be checked");
    }
    SyncObject& made = syncObjects[syncObjectCount++];
    made.address = address;
    made.owner = -1;
    made.next = cell.syncObjects;
    cell.syncObjects = &made;
    return made;
}

void Acquire(const SyncObject& object)
{
    self->clock.Join(object.released);
}

void Release(SyncObject& object)
{
    object.released.Join(self->clock);
    ++self->clock.at[self->id];
}

void ReleaseAlone(SyncObject& object)
{
    object.released = self->clock;
    ++self->clock.at[self->id];
}

void ReleaseNothing(SyncObject& object)
{
    object.released = VectorClock{};
}

}  // namespace gaktest

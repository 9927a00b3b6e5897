// Memory inside a run. Half of the runs give nothing back, so that every use of freed memory is noticed; the other half
// hand out at once what was freed last, so that addresses come back as soon as they can.

#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "memory_checker.h"
#include "scheduler.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);
}

namespace {

using gaktest::self;

constexpr size_t kSmallestBlock = 24;  // as the C library's blocks are
constexpr size_t kBlockStep = 16;
constexpr size_t kKeptSizes = 64;

struct FreeBlock {
    FreeBlock* next;
};

FreeBlock* freeBlocks[kKeptSizes];

size_t SizeIndex(size_t size)
{
    return size <= kSmallestBlock ? 0 : (size - kSmallestBlock + kBlockStep - 1) / kBlockStep;
}

void* TakeFreeBlock(size_t size)
{
    const size_t index = SizeIndex(size);
    if (index >= kKeptSizes || freeBlocks[index] == nullptr) {
        return nullptr;
    }
    FreeBlock* block = freeBlocks[index];
    freeBlocks[index] = block->next;
    gaktest::ForgetMemory(reinterpret_cast<uintptr_t>(block), malloc_usable_size(block));
    return block;
}

void KeepFreeBlock(void* memory)
{
    const size_t index = SizeIndex(malloc_usable_size(memory));
    if (gaktest::MemoryIsReused() && index < kKeptSizes) {
        auto* block = static_cast<FreeBlock*>(memory);
        block->next = freeBlocks[index];
        freeBlocks[index] = block;
    }
}

}  // namespace

extern "C" {

void* malloc(size_t size)
{
    void* reused = self == nullptr ? nullptr : TakeFreeBlock(size);
    return reused != nullptr ? reused : __libc_malloc(size);
}

void free(void* memory)
{
    if (self == nullptr) {
        __libc_free(memory);
        return;
    }
    if (memory == nullptr) {
        return;
    }
    gaktest::CheckFree(reinterpret_cast<uintptr_t>(memory), malloc_usable_size(memory),
                       gaktest::PlaceOf(__builtin_return_address(0)));
    KeepFreeBlock(memory);
}

void* calloc(size_t count, size_t size)
{
    if (self == nullptr) {
        return __libc_calloc(count, size);
    }
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* memory = malloc(bytes);
    return memory == nullptr ? nullptr : memset(memory, 0, bytes);
}

void* realloc(void* memory, size_t size)
{
    if (self == nullptr || memory == nullptr) {
        return self == nullptr ? __libc_realloc(memory, size) : malloc(size);
    }
    void* moved = malloc(size);
    if (moved != nullptr) {
        const size_t before = malloc_usable_size(memory);
        memcpy(moved, memory, before < size ? before : size);
        free(memory);
    }
    return moved;
}

}  // extern "C"

// What the engine itself must find, and must not.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "scenario.h"

namespace {

std::mutex first;
std::mutex second;
int number = 0;
std::atomic<int*> published{nullptr};

void TakeBoth(std::mutex& one, std::mutex& other)
{
    const std::lock_guard<std::mutex> outer(one);
    const std::lock_guard<std::mutex> inner(other);
}

void Publish(std::memory_order order)
{
    published.store(new int(1), order);
}

void ReadPublished(std::memory_order order)
{
    std::thread writer(Publish, std::memory_order_release);
    if (const int* value = published.load(order)) {
        gaktest::Require(*value == 1, "what was published reads otherwise");
    }
    writer.join();
}

}  // namespace

SCENARIO_WITH(EngineFindsLocksInTwoOrders, "deadlock", nullptr)
{
    std::thread other([] { TakeBoth(second, first); });
    TakeBoth(first, second);
    other.join();
}

SCENARIO(EngineAcceptsLocksInOneOrder)
{
    std::thread other([] { TakeBoth(first, second); });
    TakeBoth(first, second);
    other.join();
}

SCENARIO_WITH(EngineFindsALostSignal, "waits for a condition", nullptr)
{
    static std::condition_variable condition;
    std::thread other([] { condition.notify_one(); });  // says nothing that could be asked for under the mutex
    std::unique_lock<std::mutex> lock(first);
    condition.wait(lock);
    other.join();
}

SCENARIO_WITH(EngineFindsADataRace, "data race", nullptr)
{
    std::thread other([] { ++number; });
    ++number;
    other.join();
}

SCENARIO(EngineAcceptsWhatAMutexOrders)
{
    const auto increment = [] {
        const std::lock_guard<std::mutex> lock(first);
        ++number;
    };
    std::thread other(increment);
    increment();
    other.join();
    gaktest::Require(number == 2, "an increment was lost");
}

SCENARIO(EngineAcceptsReleaseAndAcquire)
{
    ReadPublished(std::memory_order_acquire);
}

SCENARIO_WITH(EngineFindsAMissingAcquire, "data race", nullptr)
{
    ReadPublished(std::memory_order_relaxed);
}

SCENARIO_WITH(EngineFindsUseAfterFree, "use after free", nullptr)
{
    static std::atomic<int>* shared = new std::atomic<int>(0);
    std::thread other([] { ++*shared; });
    delete shared;
    other.join();
}

// SPDX-License-Identifier: Apache-2.0
#include "tests/tv/explore/Programs.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace korvane::test {
namespace {

using namespace std::chrono_literals;

void together(const std::function<void()>& one, const std::function<void()>& other) {
    std::thread thread(one);
    other();
    thread.join();
}

/// A value behind a flag.
bool publishes(std::memory_order store, std::memory_order load, bool fences) {
    const auto value = std::make_unique<int>(0);
    std::atomic<bool> ready{false};
    together(
        [&] {
            *value = 1;
            if (fences) {
                std::atomic_thread_fence(std::memory_order_release);
            }
            ready.store(true, store);
        },
        [&] {
            while (!ready.load(load)) {
                usleep(10);
            }
            if (fences) {
                std::atomic_thread_fence(std::memory_order_acquire);
            }
            *value += 1;
        });
    return false;
}

struct Counter {
    std::mutex lock;
    int count = 0;
};

bool counts(bool locked) {
    const auto counter = std::make_unique<Counter>();
    const auto add = [&] {
        std::unique_lock<std::mutex> guard(counter->lock, std::defer_lock);
        if (locked) {
            guard.lock();
        }
        ++counter->count;
    };
    together(add, add);
    return false;
}

}  // namespace

/// Not on the heap.
bool countsInVariable() {
    static int count = 0;
    const auto add = [] { ++count; };
    together(add, add);
    return false;
}

bool lostNotify() {
    std::mutex lock;
    std::condition_variable wake;
    std::atomic<bool> ready{false};
    bool lost = false;
    together(
        [&] {
            ready = true;
            wake.notify_one();
        },
        [&] {
            if (!ready) {
                std::unique_lock<std::mutex> guard(lock);
                lost = wake.wait_for(guard, 1s) == std::cv_status::timeout;
            }
        });
    return lost;
}

bool needsTwoSwitches() {
    std::atomic<int> state{0};
    bool seen = false;
    together([&] { seen = state == 1; },
             [&] {
                 state = 1;
                 state = 2;
             });
    return seen;
}

bool worksAlone() {
    std::atomic<int> state{0};
    std::atomic<int> own{0};
    bool seen = false;
    together([&] { seen = state == 1; },
             [&] {
                 for (int i = 0; i < 20; ++i) {
                     own.fetch_add(1);
                 }
                 state = 1;
                 state = 2;
             });
    return seen;
}

bool needsThreeSwitches() {
    std::atomic<int> asked{0};
    std::atomic<int> answered{0};
    bool seen = false;
    together(
        [&] {
            asked = 1;
            answered = asked.load();
            asked = 0;
        },
        [&] {
            int one = 1;
            const bool changed = asked.compare_exchange_strong(one, 2);
            seen = changed && answered == 2;
        });
    return seen;
}

bool deadlocks() {
    std::mutex first;
    std::mutex second;
    together(
        [&] {
            const std::scoped_lock inOrder(first);
            const std::scoped_lock after(second);
        },
        [&] {
            const std::scoped_lock inOrder(second);
            const std::scoped_lock after(first);
        });
    return false;
}

bool timesOut() {
    std::atomic<bool> answered{false};
    bool late = false;
    together([&] { answered = true; },
             [&] {
                 usleep(1000);
                 late = !answered;
             });
    return late;
}

bool wakesWithoutCause() {
    std::mutex lock;
    std::condition_variable wake;
    std::unique_lock<std::mutex> guard(lock);
    return wake.wait_for(guard, 1ms) == std::cv_status::no_timeout;
}

bool twoAndTwo() {
    std::atomic<int> value{0};
    const auto twice = [&] {
        value.fetch_add(1);
        value.fetch_add(1);
    };
    together(twice, twice);
    return value != 4;
}

bool countsUnlocked() {
    return counts(false);
}

bool countsLocked() {
    return counts(true);
}

bool publishesRelaxed() {
    return publishes(std::memory_order_relaxed, std::memory_order_acquire, false);
}

bool publishesReleased() {
    return publishes(std::memory_order_release, std::memory_order_acquire, false);
}

bool publishesByFences() {
    return publishes(std::memory_order_relaxed, std::memory_order_relaxed, true);
}

bool locksInCircle() {
    std::mutex first;
    std::mutex second;
    std::thread([&] {
        const std::scoped_lock one(first);
        const std::scoped_lock two(second);
    }).join();
    std::thread([&] {
        const std::scoped_lock one(second);
        const std::scoped_lock two(first);
    }).join();
    return false;
}

bool readsFreed() {
    auto value = std::make_unique<int>(1);
    const volatile int* volatile freed = value.get();
    value.reset();
    return *freed == 1;
}

bool writesBehind() {
    const std::unique_ptr<char[]> text(new char[5]);
    volatile char* const volatile end = text.get() + 5;
    *end = 0;
    return false;
}

bool leaksMemory() {
    auto* volatile lost = new int(1);
    lost = nullptr;
    return lost != nullptr;
}

bool leaksDescriptor() {
    return dup(0) < 0;
}

bool closesTwice() {
    const int descriptor = dup(0);
    return close(descriptor) != 0 || close(descriptor) == 0;
}

bool deletedElsewhere() {
    return std::make_shared<std::string>(100, 'a')->empty();
}

}  // namespace korvane::test

// SPDX-License-Identifier: Apache-2.0
// One replaceable observer, called from any thread. A call holds a shared lock, so when `set`
// returns, no call of the earlier observer is running. Without an observer a call costs one load. A
// thread that is inside an observer does not enter one again. `call` passes on what an observer
// throws.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>

#include "tv/ScopedLock.h"
#include "tv/clock/FiberLocal.h"

namespace korvane::tv {

template <typename... Arguments>
class Observer {
public:
    using Function = std::function<void(Arguments...)>;

    void set(Function function) {
        const std::lock_guard<SharedMutex> guard(mLock);
        mFunction = std::move(function);
        mPresent.store(static_cast<bool>(mFunction), std::memory_order_release);
    }

    bool present() const { return mPresent.load(std::memory_order_acquire); }

    void call(Arguments... arguments) {
        static const FiberLocal<bool> insideOf;
        if (!present()) {
            return;
        }
        bool& inside = insideOf.get();
        if (inside) {
            return;
        }
        const SharedLock lock(mLock);
        if (mFunction) {
            const Inside guard(inside);
            mFunction(arguments...);
        }
    }

private:
    /// Marks the thread as inside until the scope ends, by an exception too.
    class Inside {
    public:
        explicit Inside(bool& mark) : mMark(mark) { mMark = true; }
        ~Inside() { mMark = false; }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

    private:
        bool& mMark;
    };

    SharedMutex mLock;
    std::atomic<bool> mPresent{false};
    Function mFunction KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::tv

// SPDX-License-Identifier: Apache-2.0
// One replaceable observer, called from any thread: a call holds a shared lock, so that after the
// observer was replaced no call to the old one is under way. Without an observer a call costs one
// load. A thread that is inside an observer does not enter it again.
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
        const SharedLock guard(mLock);
        if (mFunction) {
            inside = true;
            mFunction(arguments...);
            inside = false;
        }
    }

private:
    SharedMutex mLock;
    std::atomic<bool> mPresent{false};
    Function mFunction KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::tv

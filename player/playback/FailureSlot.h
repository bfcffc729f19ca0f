// SPDX-License-Identifier: Apache-2.0
// Keeps the first exception that code threw where none may pass: inside a call of the library,
// which is built without exceptions, or on a thread that is not the player's. The player's thread
// looks for it and throws it again.
#pragma once

#include <atomic>
#include <exception>

namespace korvane::player {

class FailureSlot {
public:
    /// Runs code; what it throws is kept. Any thread.
    template <typename Code>
    void guard(Code code) noexcept {
        try {
            code();
        } catch (...) {
            if (!mTaken.exchange(true)) {
                mFirst = std::current_exception();
                mReady = true;
            }
        }
    }

    /// Throws what was kept, if anything was.
    void rethrow() const {
        if (mReady) {
            std::rethrow_exception(mFirst);
        }
    }

private:
    std::atomic<bool> mTaken{false};
    std::atomic<bool> mReady{false};
    std::exception_ptr mFirst;  ///< written once, before `mReady`
};

}  // namespace korvane::player

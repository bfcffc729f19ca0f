// SPDX-License-Identifier: Apache-2.0
// A sync fence: a descriptor that signals once, when the hardware is done with a buffer.
//
// The last reference to a fence closes its descriptor. On this TV a fence is the read end of a
// pipe: it signals when it is readable or when its write end is closed.
#pragma once

#include <utils/Errors.h>
#include <utils/LightRefBase.h>
#include <utils/StrongPointer.h>

namespace android {

class __attribute__((visibility("default"))) Fence : public LightRefBase<Fence> {
public:
    /// A fence without a descriptor; a wait for it returns at once.
    static const sp<Fence> NO_FENCE;

    enum { TIMEOUT_NEVER = -1 };

    Fence();
    /// @param fenceFd  descriptor to own, or -1 for none
    explicit Fence(int fenceFd);
    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;

    /// Whether there is a descriptor.
    bool isValid() const { return mFenceFd != -1; }

    /// Waits until the fence has signalled. Any thread.
    /// @param timeoutMs  longest wait; TIMEOUT_NEVER for no limit
    /// @return 0 when signalled or without a descriptor, -ETIME after a timeout, another negated
    ///         error number if the descriptor cannot be polled
    status_t wait(int timeoutMs);

    /// @return a duplicate of the descriptor, which the caller owns, or -1
    int dup() const;

private:
    // Only the reference count destroys a fence.
    friend class LightRefBase<Fence>;
    virtual ~Fence();

    int mFenceFd = -1;
};

}  // namespace android

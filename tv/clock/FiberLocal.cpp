// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/FiberLocal.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace korvane::tv {
namespace {

std::atomic<int> gUsed{0};

}  // namespace

FiberSlots* gFiberSlots = nullptr;  // changes only while there is one kernel thread

int newFiberLocal() {
    const int index = gUsed++;
    if (index >= kFiberLocals) {
        std::fprintf(stderr, "FiberLocal: more than %d variables, raise kFiberLocals\n",
                     kFiberLocals);
        std::abort();
    }
    return index;
}

FiberSlots& fiberSlots() {
    thread_local FiberSlots ofKernelThread;
    return gFiberSlots != nullptr ? *gFiberSlots : ofKernelThread;
}

}  // namespace korvane::tv

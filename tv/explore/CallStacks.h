// SPDX-License-Identifier: Apache-2.0
// The call stacks of instrumented code as numbers: a tree in which each call is a node below its
// caller's. A thread's stack is its node, so that an access is recorded with its whole stack in
// four bytes. The tree lives as long as the process: programs have few different stacks.
#pragma once

#include <cstdint>
#include <vector>

namespace korvane::tv {

using StackId = uint32_t;

class CallStacks {
public:
    /// The stack of a thread that has called nothing.
    static constexpr StackId kEmpty = 0;

    CallStacks() : mNodes(1), mSlots(kFirstSlots) {}

    /// @param caller  the instruction after the call
    StackId enter(StackId from, const void* caller) {
        size_t index = slotOf(from, caller);
        for (; mSlots[index] != 0; index = (index + 1) & mMask) {
            const Node& node = mNodes[mSlots[index]];
            if (node.caller == caller && node.parent == from) {
                return mSlots[index];
            }
        }
        return add(from, caller, index);
    }

    StackId leave(StackId from) const { return mNodes[from].parent; }

    /// The calls that led here, innermost first.
    std::vector<const void*> callers(StackId stack) const {
        std::vector<const void*> calls;
        for (; stack != kEmpty; stack = mNodes[stack].parent) {
            calls.push_back(mNodes[stack].caller);
        }
        return calls;
    }

private:
    struct Node {
        const void* caller = nullptr;
        StackId parent = kEmpty;
    };

    size_t slotOf(StackId from, const void* caller) const {
        const uint64_t key = reinterpret_cast<uintptr_t>(caller) + (uint64_t{from} << 40);
        return ((key * 0x9e3779b97f4a7c15) >> 32) & mMask;
    }

    StackId add(StackId from, const void* caller, size_t index) {
        const auto added = static_cast<StackId>(mNodes.size());
        mNodes.push_back({caller, from});
        mSlots[index] = added;
        if (2 * mNodes.size() > mSlots.size()) {
            mSlots.assign(2 * mSlots.size(), 0);
            mMask = mSlots.size() - 1;
            for (StackId node = 1; node < mNodes.size(); ++node) {
                index = slotOf(mNodes[node].parent, mNodes[node].caller);
                while (mSlots[index] != 0) {
                    index = (index + 1) & mMask;
                }
                mSlots[index] = node;
            }
        }
        return added;
    }

    static constexpr size_t kFirstSlots = 1024;  // a power of two, at every size

    size_t mMask = kFirstSlots - 1;
    std::vector<Node> mNodes;
    std::vector<StackId> mSlots;
};

}  // namespace korvane::tv

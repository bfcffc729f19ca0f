// SPDX-License-Identifier: Apache-2.0
// A hash map by address that is emptied in constant time: an entry is valid while it has the map's
// generation. Values are reused, so they keep the memory that they have allocated.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace korvane::tv {

/// @tparam Value  has `clear()`
template <typename Value>
class AddressMap {
public:
    /// The entry of an address, cleared where it is new. Valid until the next call.
    Value& at(const void* address) { return at(reinterpret_cast<uintptr_t>(address)); }
    Value& at(uintptr_t address) {
        size_t index = hash(address);
        for (; mSlots[index].generation == mGeneration; index = (index + 1) & mMask) {
            if (mSlots[index].address == address) {
                return mSlots[index].value;
            }
        }
        if (2 * ++mUsed > mSlots.size()) {
            grow();
            --mUsed;
            return at(address);
        }
        Slot& slot = mSlots[index];
        slot.address = address;
        slot.generation = mGeneration;
        slot.value.clear();
        return slot.value;
    }

    void clear() {
        ++mGeneration;
        mUsed = 0;
    }

private:
    struct Slot {
        uintptr_t address = 0;
        uint64_t generation = 0;
        Value value;
    };

    size_t hash(uintptr_t address) const { return ((address * 0x9e3779b97f4a7c15) >> 32) & mMask; }

    void grow() {
        std::vector<Slot> old(2 * mSlots.size());
        std::swap(old, mSlots);
        mMask = mSlots.size() - 1;
        for (Slot& slot : old) {
            if (slot.generation == mGeneration) {
                size_t index = hash(slot.address);
                while (mSlots[index].generation == mGeneration) {
                    index = (index + 1) & mMask;
                }
                mSlots[index] = std::move(slot);
            }
        }
    }

    static constexpr size_t kFirstSlots = 1024;  // a power of two, at every size

    std::vector<Slot> mSlots{kFirstSlots};
    size_t mMask = kFirstSlots - 1;
    uint64_t mGeneration = 1;
    size_t mUsed = 0;
};

}  // namespace korvane::tv

// SPDX-License-Identifier: Apache-2.0
// The display adapter's remote object, as far as this library calls it.
//
// A closed polymorphic object, made and destroyed by two entry points of
// libtovak_display_adapter_remote.so. Only its twelfth virtual function is ours to call; the
// eleven before it are named here by their place, so that the compiler finds the right one.
#pragma once

#include <cstdint>

class DisplayAdapterRemote {
public:
    virtual void slot0() = 0;
    virtual void slot1() = 0;
    virtual void slot2() = 0;
    virtual void slot3() = 0;
    virtual void slot4() = 0;
    virtual void slot5() = 0;
    virtual void slot6() = 0;
    virtual void slot7() = 0;
    virtual void slot8() = 0;
    virtual void slot9() = 0;
    virtual void slot10() = 0;

    /// Time of the display's last vsync and its period, both in nanoseconds, written through the
    /// pointers when the display is known; the result says nothing that callers use.
    virtual bool getDisplayVsyncAndPeriod(int64_t* timestampNs, int32_t* periodNs) = 0;

protected:
    // Destroyed through its library's own entry point only.
    ~DisplayAdapterRemote() = default;
};

// The entry points, resolved by name at run time. What the first makes, the second takes back.
extern "C" {
DisplayAdapterRemote* createDisplayAdatperRemote();
void destroyDisplayAdapterRemote(DisplayAdapterRemote* remote);
}  // extern "C"

// SPDX-License-Identifier: Apache-2.0
// The display adapter's remote object, with the one operation that this library calls.
//
// A closed polymorphic object, created and destroyed by two entry points of
// libtovak_display_adapter_remote.so. This library calls only its twelfth virtual function; the
// eleven placeholders before it put that function in its slot.
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

    /// Writes the time of the display's last vsync and its period, both in nanoseconds, when the
    /// display is known. Callers ignore the result.
    virtual bool getDisplayVsyncAndPeriod(int64_t* timestampNs, int32_t* periodNs) = 0;

protected:
    // Only its library's entry point destroys it.
    ~DisplayAdapterRemote() = default;
};

// The entry points, resolved by name at run time: the second destroys what the first created.
extern "C" {
DisplayAdapterRemote* createDisplayAdatperRemote();
void destroyDisplayAdapterRemote(DisplayAdapterRemote* remote);
}  // extern "C"

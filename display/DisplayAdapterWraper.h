// SPDX-License-Identifier: Apache-2.0
// One renderer's remote object of the display adapter: the second source of the display's vsync,
// asked when the tunnel cannot tell.
//
// Made and given back on the player's thread, asked on the drain thread; the two never overlap.
// Without the adapter's library there is no remote object, and the answer is left unwritten.
#pragma once

#include "platform/DisplayAdapterRemote.h"

class __attribute__((visibility("default"))) DisplayAdapterWraper {
public:
    /// Makes the remote object, where the library can, and refreshes the display client's log mask.
    DisplayAdapterWraper();
    /// Gives the remote object back, where the library can.
    ~DisplayAdapterWraper();
    DisplayAdapterWraper(const DisplayAdapterWraper&) = delete;
    DisplayAdapterWraper& operator=(const DisplayAdapterWraper&) = delete;

    /// Asks for the time of the last vsync and the period, both nanoseconds. A caller cannot tell a
    /// filled answer from an untouched one and goes on with what the variables hold.
    /// @return true, always
    bool getDisplayVsyncAndPeriod(long* vsyncTimestamp, int* vsyncPeriod);

private:
    friend struct DisplayAdapterWraperPeer;

    DisplayAdapterRemote* mDisplayAdapterRemote = nullptr;
};

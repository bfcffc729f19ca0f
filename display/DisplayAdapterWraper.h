// SPDX-License-Identifier: Apache-2.0
// A renderer's remote object of the display adapter: the second source of the display's vsync,
// queried when the tunnel's query fails.
//
// Created and destroyed on the player's thread, queried on the drain thread; the two never overlap.
// Without the adapter's library there is no remote object, and a query writes nothing.
#pragma once

#include "platform/DisplayAdapterRemote.h"

class __attribute__((visibility("default"))) DisplayAdapterWraper {
public:
    /// Creates the remote object, if the library can, and refreshes the display client's log mask.
    DisplayAdapterWraper();
    /// Destroys the remote object, if the library can.
    ~DisplayAdapterWraper();
    DisplayAdapterWraper(const DisplayAdapterWraper&) = delete;
    DisplayAdapterWraper& operator=(const DisplayAdapterWraper&) = delete;

    /// Queries the time of the last vsync and the period, both nanoseconds. Without a remote object
    /// it writes nothing; the caller goes on with the values that its variables hold.
    /// @return true, always
    bool getDisplayVsyncAndPeriod(long* vsyncTimestamp, int* vsyncPeriod);

private:
    friend struct DisplayAdapterWraperPeer;

    DisplayAdapterRemote* mDisplayAdapterRemote = nullptr;
};

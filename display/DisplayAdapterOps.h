// SPDX-License-Identifier: Apache-2.0
// Loader of the display adapter library.
//
// The library is opened by name, and its two entry points are resolved, once per process while this
// library is being loaded. What could not be resolved stays null and is tested before each use;
// there is no second attempt. Written at load and unload only; any thread reads it in between.
#pragma once

#include "platform/DisplayAdapterRemote.h"

class __attribute__((visibility("default"))) tovakDisplayAdater_ops {
public:
    tovakDisplayAdater_ops();
    /// Closes the library.
    ~tovakDisplayAdater_ops();
    tovakDisplayAdater_ops(const tovakDisplayAdater_ops&) = delete;
    tovakDisplayAdater_ops& operator=(const tovakDisplayAdater_ops&) = delete;

    decltype(&createDisplayAdatperRemote) mCreate;
    decltype(&destroyDisplayAdapterRemote) mDestroy;
    bool mInited;  ///< always false; kept for the object's layout
    void* mLibHandle;
};

/// The process's display adapter library. Built after `gVideoTunnelOps`.
extern __attribute__((visibility("default"))) tovakDisplayAdater_ops gDisplayAdapterOps;

// SPDX-License-Identifier: Apache-2.0
// Loader of the display adapter library.
//
// Opens the library by name and resolves its two entry points, once per process while this library
// is being loaded, without a second attempt. An entry point that is missing stays null and is
// tested before each use. Written only at load and unload; any thread may read it in between.
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

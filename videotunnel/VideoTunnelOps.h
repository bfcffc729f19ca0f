// SPDX-License-Identifier: Apache-2.0
// Loader of the video tunnel library.
//
// The library is opened by name, and its entry points are resolved, once per process while this
// library is being loaded. Whoever calls the tunnel does so through `gVideoTunnelOps` and tests the
// pointer first: a null pointer is an entry point that the device lacks.
//
//   unloaded    no handle                                 the library could not be opened
//   incomplete  handle, some pointers, not inited         a needed entry point is missing
//   ready       handle, inited                            tovak_vt_send_cmd, _queue_buffer and
//                                                         _getDisplayVsyncAndPeroid may be missing
//
// Written while the library is loaded and unloaded only; in between any thread reads it.
#pragma once

#include "platform/VideoTunnelLibrary.h"

class __attribute__((visibility("default"))) videotunnel_ops {
public:
    /// Tries to become ready; the members tell how far that went.
    videotunnel_ops();
    /// Closes the library.
    ~videotunnel_ops();
    videotunnel_ops(const videotunnel_ops&) = delete;
    videotunnel_ops& operator=(const videotunnel_ops&) = delete;

    /// Opens the library, unless an earlier attempt left it open, and resolves the entry points in
    /// order; the first needed one that is missing ends the attempt, and what was resolved stays.
    /// @return true when ready, now or already
    bool videoTunnelLibInit();

    /// Closes the library and leaves everything else as it is: still inited, the pointers dangling.
    /// For a caller that will not use the tunnel again. Not safe beside other users.
    /// @return true
    bool videoTunnelLibRelease();

    decltype(&tovak_vt_open) mOpen;
    decltype(&tovak_vt_close) mClose;
    decltype(&tovak_vt_alloc_id) mAllocId;
    decltype(&tovak_vt_free_id) mFreeId;
    decltype(&tovak_vt_connect) mConnect;
    decltype(&tovak_vt_disconnect) mDisconnect;
    decltype(&tovak_vt_queue_buffer) mQueueBuffer;
    decltype(&tovak_vt_dequeue_buffer) mDequeueBuffer;
    decltype(&tovak_vt_send_cmd) mSendCmd;
    decltype(&tovak_vt_getDisplayVsyncAndPeroid) mGetDisplayVsyncAndPeroid;
    bool mInited;
    void* mLibHandle;
};

/// The process's tunnel library. Built before `gDisplayAdapterOps`.
extern __attribute__((visibility("default"))) videotunnel_ops gVideoTunnelOps;

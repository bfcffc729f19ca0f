// SPDX-License-Identifier: Apache-2.0
// Loader of the video tunnel library.
//
// Opens the library by name and resolves its entry points, once per process while this library is
// being loaded. Calls to the tunnel go through `gVideoTunnelOps` and test the pointer first: it is
// null for an entry point that the device lacks.
//
//   unloaded    no handle                                 the library could not be opened
//   incomplete  handle, some pointers, not inited         a needed entry point is missing
//   ready       handle, inited                            tovak_vt_send_cmd, _queue_buffer and
//                                                         _getDisplayVsyncAndPeroid may be missing
//
// Written only while the library is loaded and unloaded; any thread may read it in between.
#pragma once

#include "platform/VideoTunnelLibrary.h"

class __attribute__((visibility("default"))) videotunnel_ops {
public:
    /// Opens the library; the members show which state was reached.
    videotunnel_ops();
    /// Closes the library.
    ~videotunnel_ops();
    videotunnel_ops(const videotunnel_ops&) = delete;
    videotunnel_ops& operator=(const videotunnel_ops&) = delete;

    /// Opens the library, unless it is still open, and resolves the entry points in order. Stops at
    /// the first required one that is missing; those resolved before stay.
    /// @return true when ready
    bool videoTunnelLibInit();

    /// Closes the library and changes nothing else: inited stays true and the pointers dangle. For
    /// a caller that will not use the tunnel again, while nobody else uses it.
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

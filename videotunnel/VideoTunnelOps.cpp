// SPDX-License-Identifier: Apache-2.0
// Opens the library and resolves its entry points in order, each with its own error message.
#include "videotunnel/VideoTunnelOps.h"

#include "platform/DynamicLibrary.h"
#include "platform/InitOrder.h"
#include "videotunnel/Log.h"

using korvane::kLogInfo;
using korvane::loadError;
using korvane::resolve;
using korvane::videotunnel::gLogMask;
using korvane::videotunnel::kLogTag;

namespace {

/// The six that open and close a connection, all required.
bool resolveConnection(videotunnel_ops* ops) {
    if (!resolve(ops->mLibHandle, "tovak_vt_open", &ops->mOpen)) {
        KORVANE_LOGE(kLogTag, " dlsym tovak_vt_open failed, err=%s \n", loadError());
        return false;
    }
    if (!resolve(ops->mLibHandle, "tovak_vt_close", &ops->mClose)) {
        KORVANE_LOGE(kLogTag, " dlsym tovak_vt_close failed, err=%s \n", loadError());
        return false;
    }
    if (!resolve(ops->mLibHandle, "tovak_vt_alloc_id", &ops->mAllocId)) {
        KORVANE_LOGE(kLogTag, "dlsym tovak_vt_alloc_id failed, err=%s \n", loadError());
        return false;
    }
    if (!resolve(ops->mLibHandle, "tovak_vt_free_id", &ops->mFreeId)) {
        KORVANE_LOGE(kLogTag, "dlsym tovak_vt_free_id failed, err=%s \n", loadError());
        return false;
    }
    if (!resolve(ops->mLibHandle, "tovak_vt_connect", &ops->mConnect)) {
        KORVANE_LOGE(kLogTag, "dlsym tovak_vt_connect failed, err=%s \n", loadError());
        return false;
    }
    if (!resolve(ops->mLibHandle, "tovak_vt_disconnect", &ops->mDisconnect)) {
        KORVANE_LOGE(kLogTag, "dlsym tovak_vt_disconnect failed, err=%s \n", loadError());
        return false;
    }
    return true;
}

/// The four that use a connection. Only dequeueing is required: some devices lack one of the
/// others, and its caller reports the null pointer. Of those only a missing send_cmd is logged
/// here.
bool resolveExchange(videotunnel_ops* ops) {
    if (!resolve(ops->mLibHandle, "tovak_vt_send_cmd", &ops->mSendCmd)) {
        KORVANE_LOGE(kLogTag, " dlsym tovak_vt_send_cmd failed, err=%s \n", loadError());
    }
    resolve(ops->mLibHandle, "tovak_vt_queue_buffer", &ops->mQueueBuffer);
    if (!resolve(ops->mLibHandle, "tovak_vt_dequeue_buffer", &ops->mDequeueBuffer)) {
        KORVANE_LOGE(kLogTag, "dlsym tovak_vt_dequeue_buffer failed, err=%s \n", loadError());
        return false;
    }
    resolve(ops->mLibHandle, "tovak_vt_getDisplayVsyncAndPeroid", &ops->mGetDisplayVsyncAndPeroid);
    return true;
}

}  // namespace

__attribute__((init_priority(korvane::kInitVideoTunnelLoader))) videotunnel_ops gVideoTunnelOps;

videotunnel_ops::videotunnel_ops()
    : mOpen(nullptr),
      mClose(nullptr),
      mAllocId(nullptr),
      mFreeId(nullptr),
      mConnect(nullptr),
      mDisconnect(nullptr),
      mQueueBuffer(nullptr),
      mDequeueBuffer(nullptr),
      mSendCmd(nullptr),
      mGetDisplayVsyncAndPeroid(nullptr),
      mInited(false),
      mLibHandle(nullptr) {
    videoTunnelLibInit();
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "ctor videotunnel_ops\n");
}

videotunnel_ops::~videotunnel_ops() {
    videoTunnelLibRelease();
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "videotunnel_ops leave\n");
}

bool videotunnel_ops::videoTunnelLibInit() {
    if (mInited) {
        KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "videoTunnelLibInit has inited\n");
        return true;
    }
    if (mLibHandle == nullptr) {
        mLibHandle = dlopen("libvideotunnel.so", RTLD_NOW);
        if (mLibHandle == nullptr) {
            KORVANE_LOGE(kLogTag, "unable to dlopen libvideotunnel.so: %s", loadError());
            return false;
        }
    }
    if (!resolveConnection(this) || !resolveExchange(this)) {
        return false;
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "videoTunnelLibInit ok\n");
    mInited = true;
    return true;
}

bool videotunnel_ops::videoTunnelLibRelease() {
    if (mLibHandle != nullptr) {
        dlclose(mLibHandle);
        mLibHandle = nullptr;
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "videoTunnelLibRelease\n");
    return true;
}

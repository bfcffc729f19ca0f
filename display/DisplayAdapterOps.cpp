// SPDX-License-Identifier: Apache-2.0
// Opens the library and resolves its two entry points; stops at the first failure with one error
// line and keeps what was resolved before.
#include "display/DisplayAdapterOps.h"

#include "display/Log.h"
#include "platform/DynamicLibrary.h"
#include "platform/InitOrder.h"

using korvane::kLogInfo;
using korvane::loadError;
using korvane::resolve;
using korvane::display::gLogMask;
using korvane::display::kLogTag;

__attribute__((init_priority(korvane::kInitDisplayAdapterLoader)))
tovakDisplayAdater_ops gDisplayAdapterOps;

tovakDisplayAdater_ops::tovakDisplayAdater_ops()
    : mCreate(nullptr), mDestroy(nullptr), mInited(false), mLibHandle(nullptr) {
    mLibHandle = dlopen("libtovak_display_adapter_remote.so", RTLD_NOW);
    if (mLibHandle == nullptr) {
        KORVANE_LOGE(kLogTag, "unable to dlopen libtovak_display_adapter_remote: %s", loadError());
        return;
    }
    if (!resolve(mLibHandle, "createDisplayAdatperRemote", &mCreate)) {
        KORVANE_LOGE(kLogTag, "unable to find createDisplayAdatperRemote:%s", loadError());
        return;
    }
    if (!resolve(mLibHandle, "destroyDisplayAdapterRemote", &mDestroy)) {
        KORVANE_LOGE(kLogTag, "unable to find destroyDisplayAdapterRemote:%s", loadError());
        return;
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovakDisplayAdater_ops enter");
}

tovakDisplayAdater_ops::~tovakDisplayAdater_ops() {
    if (mLibHandle != nullptr) {
        dlclose(mLibHandle);
        mLibHandle = nullptr;
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovakDisplayAdater_ops leave");
}

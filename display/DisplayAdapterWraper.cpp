// SPDX-License-Identifier: Apache-2.0
#include "display/DisplayAdapterWraper.h"

#include "display/DisplayAdapterOps.h"
#include "display/Log.h"

using korvane::kLogDetail;
using korvane::kLogInfo;
using korvane::display::gLogMask;
using korvane::display::kLogTag;

namespace {

// Line numbers that this client's log lines have always carried.
constexpr int kConstructorLine = 109;
constexpr int kDestructorLine = 119;

}  // namespace

DisplayAdapterWraper::DisplayAdapterWraper() {
    // Logged under the previous wrapper's mask, which the refresh below may replace.
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s:%d]", __func__, kConstructorLine);
    if (gDisplayAdapterOps.mCreate != nullptr) {
        mDisplayAdapterRemote = gDisplayAdapterOps.mCreate();
    }
    korvane::refreshLogMask(gLogMask, kLogTag);
}

DisplayAdapterWraper::~DisplayAdapterWraper() {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s:%d]", __func__, kDestructorLine);
    if (mDisplayAdapterRemote != nullptr && gDisplayAdapterOps.mDestroy != nullptr) {
        gDisplayAdapterOps.mDestroy(mDisplayAdapterRemote);
        mDisplayAdapterRemote = nullptr;
    }
}

bool DisplayAdapterWraper::getDisplayVsyncAndPeriod(long* vsyncTimestamp, int* vsyncPeriod) {
    if (mDisplayAdapterRemote == nullptr) {
        return true;
    }
    mDisplayAdapterRemote->getDisplayVsyncAndPeriod(vsyncTimestamp, vsyncPeriod);
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag, "vsynctime:%ld, vsyncinc:%d", *vsyncTimestamp,
                 *vsyncPeriod);
    return true;
}

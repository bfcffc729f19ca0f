// SPDX-License-Identifier: Apache-2.0
// Each operation calls the service, logs the call and checks the status. A line logged after the
// call shows the outputs, whether or not the call succeeded.
#include "mediasync/VideoSyncWraper.h"

#include <new>

#include "platform/LogMask.h"

using korvane::kLogDetail;
using korvane::kLogFrame;
using korvane::kLogInfo;

namespace {

constexpr char kLogTag[] = "VideoSyncWraper";

korvane::LogMask gLogMask;

/// Converts a status of the service into a result and logs a failure under the operation's name.
bool succeeded(const char* operation, int status) {
    if (status == 0) {
        return true;
    }
    KORVANE_LOGE(kLogTag, "[%s]err:%d \n", operation, status);
    return false;
}

}  // namespace

VideoSyncWraper::VideoSyncWraper() : mMediaSync(new (std::nothrow) MediaSync()) {
    korvane::refreshLogMask(gLogMask, kLogTag);
}

VideoSyncWraper::~VideoSyncWraper() {
    delete mMediaSync;
    mMediaSync = nullptr;
}

bool VideoSyncWraper::setPlayerInsNumber(int number) {
    const int status = mMediaSync->setPlayerInsNumber(number);
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s] PlayerInsNumber:%d\n", __func__, number);
    return succeeded(__func__, status);
}

bool VideoSyncWraper::bindInstance(unsigned int syncInsId, sync_stream_type type) {
    const int status = mMediaSync->bindInstance(syncInsId, type);
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s] SyncInsId:%d, streamtype:%d\n", __func__,
                 static_cast<int>(syncInsId), type);
    return succeeded(__func__, status);
}

bool VideoSyncWraper::setSyncMode(sync_mode mode) {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s]mode:%d \n", __func__, mode);
    return succeeded(__func__, mMediaSync->setSyncMode(mode));
}

bool VideoSyncWraper::getSyncMode(sync_mode* mode) {
    const int status = mMediaSync->getSyncMode(mode);
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag, "[%s]mode:%d \n", __func__, *mode);
    return succeeded(__func__, status);
}

bool VideoSyncWraper::setPause(bool pause) {
    return succeeded(__func__, mMediaSync->setPause(pause));
}

bool VideoSyncWraper::getPause(bool* paused) {
    return succeeded(__func__, mMediaSync->getPause(paused));
}

bool VideoSyncWraper::updateAnchor(long anchorTimeMediaUs, long anchorTimeRealUs,
                                   long maxTimeMediaUs) {
    constexpr bool kFromVideo = true;
    KORVANE_LOGD(gLogMask, kLogFrame, kLogTag,
                 "[%s]anchorTimeMediaUs:%ld, anchorTimeRealUs:%ld, maxTimeMediaUs:%ld \n", __func__,
                 anchorTimeMediaUs, anchorTimeRealUs, maxTimeMediaUs);
    return succeeded(__func__, mMediaSync->updateAnchor(anchorTimeMediaUs, anchorTimeRealUs,
                                                        maxTimeMediaUs, kFromVideo));
}

bool VideoSyncWraper::getMediaTime(long realUs, long* outMediaUs, bool allowPastMaxTime) {
    const int status = mMediaSync->getMediaTime(realUs, outMediaUs, allowPastMaxTime);
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag,
                 "[%s]realUs:%ld, outMediaUs:%ld, allowPastMaxTime:%d \n", __func__, realUs,
                 *outMediaUs, allowPastMaxTime);
    return succeeded(__func__, status);
}

bool VideoSyncWraper::getRealTimeFor(long targetMediaUs, long* outRealUs) {
    const int status = mMediaSync->getRealTimeFor(targetMediaUs, outRealUs);
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag, "[%s]targetMediaUs:%ld, outRealUs:%ld \n", __func__,
                 targetMediaUs, *outRealUs);
    return succeeded(__func__, status);
}

bool VideoSyncWraper::getRealTimeForNextVsync(long* outRealUs) {
    const int status = mMediaSync->getRealTimeForNextVsync(outRealUs);
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag, "[%s]outRealUs:%ld \n", __func__, *outRealUs);
    return succeeded(__func__, status);
}

bool VideoSyncWraper::reset() {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s] \n", __func__);
    return succeeded(__func__, mMediaSync->reset());
}

bool VideoSyncWraper::getSyncId(int* syncId) {
    // The instance has no demultiplexer and no broadcast clock (PCR).
    constexpr int kDemuxId = 0;
    constexpr int kPcrPid = 0;
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s] \n", __func__);
    return succeeded(__func__, mMediaSync->allocInstance(kDemuxId, kPcrPid, syncId));
}

bool VideoSyncWraper::getTrackMediaTime(long* outMediaUs) {
    return succeeded(__func__, mMediaSync->getTrackMediaTime(outMediaUs));
}

bool VideoSyncWraper::getStartingTimeMedia(long* outMediaUs) {
    return succeeded(__func__, mMediaSync->getStartingTimeMedia(outMediaUs));
}

bool VideoSyncWraper::setUpdateTimeThreshold(long threshold) {
    return succeeded(__func__, mMediaSync->setUpdateTimeThreshold(threshold));
}

bool VideoSyncWraper::getUpdateTimeThreshold(long* threshold) {
    return succeeded(__func__, mMediaSync->getUpdateTimeThreshold(threshold));
}

bool VideoSyncWraper::setParameter(mediasync_parameter type, void* arg) {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s] \n", __func__);
    return succeeded(__func__, mMediaSync->setParameter(type, arg));
}

bool VideoSyncWraper::getParameter(mediasync_parameter type, void* arg) {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "[%s] \n", __func__);
    return succeeded(__func__, mMediaSync->getParameter(type, arg));
}

bool VideoSyncWraper::queueVideoFrame(long timestampUs, int size, int extra,
                                      mediasync_time_unit unit) {
    return succeeded(__func__, mMediaSync->queueVideoFrame(timestampUs, size, extra, unit));
}

bool VideoSyncWraper::VideoProcess(long mediaTimeUs, long lastMediaTimeUs, mediasync_time_unit unit,
                                   mediasync_video_policy* policy) {
    return succeeded(__func__,
                     mMediaSync->VideoProcess(mediaTimeUs, lastMediaTimeUs, unit, policy));
}

bool VideoSyncWraper::setStartingTimeMedia(long /*startingTimeMediaUs*/) {
    return true;
}

bool VideoSyncWraper::clearAnchor() {
    return true;
}

bool VideoSyncWraper::setPlaybackRate(float /*rate*/) {
    return true;
}

bool VideoSyncWraper::getPlaybackRate(float* /*rate*/) {
    return true;
}

// SPDX-License-Identifier: Apache-2.0
// The connection, in order: device, id, connect, then queue and dequeue with the release fence.
#include "videotunnel/VideoTunnelWraper.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <ui/Fence.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "platform/Trace.h"
#include "videotunnel/Log.h"
#include "videotunnel/VideoTunnelOps.h"

using korvane::kLogDetail;
using korvane::kLogFrame;
using korvane::kLogInfo;
using korvane::videotunnel::gLogMask;
using korvane::videotunnel::kLogTag;

namespace {

constexpr int32_t kNone = -1;

/// A release fence signals within a vsync or two; after a second the display hangs.
constexpr int32_t kFenceTimeoutMs = 1000;

/// Fewest queued buffers to dequeue one: one is on screen, one is next, one can be released.
constexpr int32_t kMinQueuedToDequeue = 3;

// Arguments that this client always passes to the tunnel.
constexpr int kRoleProducer = 0;
constexpr int kNoAcquireFence = -1;
constexpr int kCommandBeforeDisconnect = 0;
constexpr int kCommandArgument = 1;

// Numbers that this client's log lines have always carried: two line numbers, and the value printed
// as the result of a refused call.
constexpr int kDisconnectLine = 331;
constexpr int kDequeueLine = 373;
constexpr int kConnectFailure = 0;
constexpr int kCallFailure = 1;

/// The text of an error number; each object has its own buffer, because several threads may fail at
/// the same time.
class ErrorText {
public:
    explicit ErrorText(int error) : mText(strerror_r(error, mBuffer, sizeof(mBuffer))) {}
    ErrorText(const ErrorText&) = delete;
    ErrorText& operator=(const ErrorText&) = delete;

    const char* text() const { return mText; }

private:
    char mBuffer[64] = {};
    const char* mText;
};

/// Like refreshLogMask, but logs with the bit and priority of the per-buffer lines.
void refreshLogMaskAtDebug() {
    int32_t bits = 0;
    if (korvane::readIntProperty(korvane::kLogLevelProperty, &bits)) {
        gLogMask.set(bits);
        KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "%s set = %d\n", korvane::kLogLevelProperty,
                     bits);
    } else {
        KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "%s is not set used def = %d\n",
                     korvane::kLogLevelProperty, gLogMask.value());
    }
}

/// Whether there is a device and an id to call the tunnel with.
bool reaches(int device, int tunnelId) {
    return device >= 0 && tunnelId >= 0;
}

/// Whether a buffer may be dequeued: the display keeps the last two.
bool mayDequeue(int device, int tunnelId, int32_t queuedCount) {
    constexpr char kOperation[] = "dequeueBuffer";
    if (!reaches(device, tunnelId) || gVideoTunnelOps.mDequeueBuffer == nullptr) {
        KORVANE_LOGE(kLogTag,
                     "%s video tunnel dequeueBuffer failed, mVideoTunnelFd:%d, mTunnelId:%d",
                     kOperation, device, tunnelId);
        return false;
    }
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag, "%s:%d, mQueuedCount:%d", kOperation, kDequeueLine,
                 queuedCount);
    return queuedCount >= kMinQueuedToDequeue;
}

void closeDevice(int device) {
    if (gVideoTunnelOps.mClose != nullptr) {
        gVideoTunnelOps.mClose(device);
    } else {
        KORVANE_LOGE(kLogTag, "tovak_vt_close nullptr!");
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovak_vt_close done!");
}

/// Whether a descriptor looks like a release fence: open for reading, without flags, and not
/// deleted. The messages carry the text of the negated error number and the number itself.
bool looksLikeFence(int fenceFd) {
    if (fcntl(fenceFd, F_GETFL) != 0) {
        const int error = errno;
        KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "fcntl error : %s (%d)!\n",
                     ErrorText(-error).text(), error);
        return false;
    }
    struct stat status {};
    if (fstat(fenceFd, &status) != 0) {
        const int error = errno;
        KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "fstat error : %s (%d)!\n",
                     ErrorText(-error).text(), error);
        return false;
    }
    if (status.st_nlink == 0) {
        KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "File was deleted!\n");
        return false;
    }
    return true;
}

struct FreeMemory {
    void operator()(void* memory) const { ::operator delete(memory); }
};
using FenceMemory = std::unique_ptr<void, FreeMemory>;

/// Waits until the display has released a buffer. The fence owns and closes its descriptor; a
/// descriptor that is no fence stays open.
bool waitForRelease(int bufferFd, int fenceFd, int timeoutMs, FenceMemory memory) {
    if (!looksLikeFence(fenceFd)) {
        return false;
    }
    const android::sp<android::Fence> fence = new (memory.release()) android::Fence(fenceFd);
    const int result = fence->wait(timeoutMs);
    if (result != 0) {
        // unsigned: android::UNKNOWN_ERROR is the smallest int, which cannot be negated
        const int error = static_cast<int>(0U - static_cast<unsigned>(result));
        KORVANE_LOGI(gLogMask, kLogInfo, kLogTag,
                     "Failed to wait for fence: fd: %d fence_fd %d err : %s (%d)", bufferFd,
                     fenceFd, ErrorText(error).text(), result);
    }
    return result == 0;
}

}  // namespace

VideoTunnelWraper::VideoTunnelWraper()
    : mQueuedCount(0),
      mTunnelId(kNone),
      mVideoTunnelFd(kNone),
      mConnected(false),
      mFenceTimeoutMs(kFenceTimeoutMs) {
    refreshLogMaskAtDebug();
    if (gVideoTunnelOps.mOpen != nullptr) {
        mVideoTunnelFd = gVideoTunnelOps.mOpen();
        if (mVideoTunnelFd < 0) {
            KORVANE_LOGE(kLogTag, "tovak_vt_open failed! %s", ErrorText(errno).text());
        }
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "ctor VideoTunnelWraper mVideoTunnelFd %d",
                 mVideoTunnelFd);
}

VideoTunnelWraper::~VideoTunnelWraper() {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "~VideoTunnelWraper, mConnected = %d",
                 mConnected.load());
    if (mConnected) {
        disconnect();
    }
    if (mTunnelId >= 0) {
        freeTunnelId();
    }
    if (mVideoTunnelFd >= 0) {
        closeDevice(mVideoTunnelFd);
        mVideoTunnelFd = kNone;
    }
}

int VideoTunnelWraper::allocTunnelId() {
    int tunnelId = mTunnelId;
    if (mVideoTunnelFd < 0 || tunnelId >= 0 || gVideoTunnelOps.mAllocId == nullptr) {
        KORVANE_LOGE(kLogTag, "tovak_vt_alloc_id failed, mVideoTunnelFd:%d, mTunnelId:%d",
                     mVideoTunnelFd, tunnelId);
        return -1;
    }
    const int result = gVideoTunnelOps.mAllocId(mVideoTunnelFd, &tunnelId);
    if (result < 0) {
        KORVANE_LOGE(kLogTag, "tovak_vt_alloc_id failed! %s", ErrorText(errno).text());
        return result;
    }
    mTunnelId = tunnelId;
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovak_vt_alloc_id success. mTunnelId:%d", tunnelId);
    return tunnelId;
}

bool VideoTunnelWraper::freeTunnelId() {
    const int tunnelId = mTunnelId;
    if (!reaches(mVideoTunnelFd, tunnelId) || gVideoTunnelOps.mFreeId == nullptr) {
        KORVANE_LOGE(kLogTag, "tovak_vt_free_id failed, mVideoTunnelFd:%d, mTunnelId:%d",
                     mVideoTunnelFd, tunnelId);
        return false;
    }
    if (gVideoTunnelOps.mFreeId(mVideoTunnelFd, tunnelId) < 0) {
        KORVANE_LOGE(kLogTag, "tovak_vt_free_id failed! %s", ErrorText(errno).text());
        return false;
    }
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovak_vt_free_id success. mTunnelId:%d", tunnelId);
    mTunnelId = kNone;
    return true;
}

bool VideoTunnelWraper::connect() {
    const int tunnelId = mTunnelId;
    if (!reaches(mVideoTunnelFd, tunnelId) || gVideoTunnelOps.mConnect == nullptr) {
        KORVANE_LOGE(kLogTag, "tovak_vt_connect failed, mVideoTunnelFd:%d, mTunnelId:%d",
                     mVideoTunnelFd, tunnelId);
        return true;
    }
    if (gVideoTunnelOps.mConnect(mVideoTunnelFd, tunnelId, kRoleProducer) < 0) {
        KORVANE_LOGE(kLogTag, "tovak_vt_connect failed with %d", kConnectFailure);
        return false;
    }
    mConnected = true;
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovak_vt_connect success!");
    return true;
}

bool VideoTunnelWraper::disconnect() {
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "%s:%d, mQueuedCount:%d", __func__, kDisconnectLine,
                 mQueuedCount.load());
    const int tunnelId = mTunnelId;
    if (!reaches(mVideoTunnelFd, tunnelId) || gVideoTunnelOps.mDisconnect == nullptr) {
        return true;
    }
    if (gVideoTunnelOps.mSendCmd != nullptr) {
        const int result = gVideoTunnelOps.mSendCmd(mVideoTunnelFd, tunnelId,
                                                    kCommandBeforeDisconnect, kCommandArgument);
        KORVANE_LOGI(gLogMask, kLogInfo, kLogTag,
                     "tovak_vt_send_cmd with ret:%d mVideoTunnelFd:%d mTunnelId:%d", result,
                     mVideoTunnelFd, tunnelId);
    }
    if (gVideoTunnelOps.mDisconnect(mVideoTunnelFd, tunnelId, kRoleProducer) < 0) {
        KORVANE_LOGE(kLogTag, "tovak_vt_disconnect failed with %d", kCallFailure);
        return true;
    }
    mConnected = false;
    KORVANE_LOGI(gLogMask, kLogInfo, kLogTag, "tovak_vt_disconnect success!");
    return true;
}

bool VideoTunnelWraper::queueBuffer(int fd, long timestamp) {
    const int tunnelId = mTunnelId;
    if (!reaches(mVideoTunnelFd, tunnelId) || gVideoTunnelOps.mQueueBuffer == nullptr) {
        KORVANE_LOGE(kLogTag, "%s video tunnel queueBuffer failed, mVideoTunnelFd:%d, mTunnelId:%d",
                     __func__, mVideoTunnelFd, tunnelId);
        return false;
    }
    if (gVideoTunnelOps.mQueueBuffer(mVideoTunnelFd, tunnelId, fd, kNoAcquireFence, timestamp) <
        0) {
        KORVANE_LOGE(kLogTag, "tovak_vt_queue_buffer failed with %d", kCallFailure);
        return true;
    }
    KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "queueBuffer %d %ld", fd, timestamp);
    ++mQueuedCount;
    const int32_t queuedCount = mQueuedCount;
    KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "queueBuffer %d %ld, count:%d", fd, timestamp,
                 queuedCount);
    korvane::traceCounter(gLogMask, "vtQueueCntTunnel", queuedCount);
    return true;
}

bool VideoTunnelWraper::dequeueBuffer(int* fd) {
    const int tunnelId = mTunnelId;
    if (!mayDequeue(mVideoTunnelFd, tunnelId, mQueuedCount)) {
        return false;
    }
    // Memory first: without it the buffer stays in the tunnel, and the caller tries again.
    FenceMemory memory(::operator new(sizeof(android::Fence), std::nothrow));
    if (memory == nullptr) {
        return false;
    }
    int fenceFd = kNone;
    const int result = gVideoTunnelOps.mDequeueBuffer(mVideoTunnelFd, tunnelId, fd, &fenceFd);
    if (result < 0) {
        KORVANE_LOGD(gLogMask, kLogDetail, kLogTag,
                     "tovak_vt_dequeue_buffer failed with %d, need deq again", result);
        return false;
    }
    KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "dequeueBuffer %d %d", *fd, fenceFd);
    if (fenceFd >= 0 && !waitForRelease(*fd, fenceFd, mFenceTimeoutMs, std::move(memory))) {
        return false;
    }
    --mQueuedCount;
    const int32_t queuedCount = mQueuedCount;
    KORVANE_LOGD(gLogMask, kLogFrame, kLogTag, "dequeueBuffer count:%d", queuedCount);
    korvane::traceCounter(gLogMask, "vtQueueCntTunnel", queuedCount);
    return true;
}

bool VideoTunnelWraper::getDisplayVsyncAndPeriod(long* vsyncTimestamp, int* vsyncPeriod) {
    const int tunnelId = mTunnelId;
    if (!reaches(mVideoTunnelFd, tunnelId) ||
        gVideoTunnelOps.mGetDisplayVsyncAndPeroid == nullptr) {
        return false;
    }
    if (gVideoTunnelOps.mGetDisplayVsyncAndPeroid(mVideoTunnelFd, tunnelId, vsyncTimestamp,
                                                  vsyncPeriod) < 0) {
        KORVANE_LOGE(kLogTag, "tovak_vt_getDisplayVsyncAndPeroid failed with %d", kCallFailure);
        return false;
    }
    KORVANE_LOGD(gLogMask, kLogDetail, kLogTag,
                 "getDisplayVsyncAndPeroid vsyncTimestamp:%ld, vsyncTimestamp:%d", *vsyncTimestamp,
                 *vsyncPeriod);
    return true;
}

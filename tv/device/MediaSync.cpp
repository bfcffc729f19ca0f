// SPDX-License-Identifier: Apache-2.0
// libkorvane_mediasync.so: one client of the current TV's media-sync service.
//
// A client starts without an instance; calls that need one fail. While an instance has a fault
// status, every call of its clients returns that status, has no effect and leaves outputs alone.
// Without a TV every call fails. Any thread may call.
//
// A renderer polls its clock, so the client takes no lock: it keeps every instance that it was ever
// bound to, and one atomic pointer says which one is bound now.
#include "platform/MediaSync.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "tv/MediaSyncService.h"
#include "tv/Tv.h"

namespace {

using korvane::tv::SyncInstance;
using korvane::tv::Tv;

constexpr int kOk = 0;
constexpr int kFailed = -1;

int64_t nowUs() {
    return korvane::tv::nowNs() / 1000;
}

/// The content of a MediaSync's opaque bytes.
class Client {
public:
    /// Calls the bound instance.
    template <typename Call>
    int onInstance(const Call& call) const {
        SyncInstance* const instance = mInstance.load(std::memory_order_acquire);
        if (instance == nullptr || !Tv::isAnyOn()) {
            return kFailed;
        }
        const int status = instance->status();
        return status == kOk ? call(*instance) : status;
    }

    /// Calls with the client's own settings, which need no instance.
    template <typename Call>
    int onSettings(const Call& call) {
        if (!Tv::isAnyOn()) {
            return kFailed;
        }
        const std::lock_guard<std::mutex> lock(mLock);
        const SyncInstance* const instance = mInstance.load(std::memory_order_acquire);
        const int status = instance != nullptr ? instance->status() : kOk;
        return status == kOk ? call(mSettings) : status;
    }

    int bind(unsigned int id) {
        const auto tv = Tv::current();
        const auto instance = tv ? tv->mediaSync().find(static_cast<int>(id)) : nullptr;
        if (instance == nullptr) {
            return kFailed;
        }
        if (instance->status() == kOk) {
            const std::lock_guard<std::mutex> lock(mLock);
            mEverBound.push_back(instance);
            mInstance.store(instance.get(), std::memory_order_release);
        }
        return instance->status();
    }

    struct Settings {
        int playerNumber = 0;
        std::map<int32_t, int32_t> parameters;
    };

private:
    std::atomic<SyncInstance*> mInstance{nullptr};  ///< owned by mEverBound
    std::mutex mLock;
    std::vector<std::shared_ptr<SyncInstance>> mEverBound KORVANE_GUARDED_BY(mLock);
    Settings mSettings KORVANE_GUARDED_BY(mLock);
};

Client& clientIn(unsigned char* opaque) {
    return *std::launder(reinterpret_cast<Client*>(opaque));
}

}  // namespace

MediaSync::MediaSync() {
    static_assert(sizeof(Client) <= sizeof(mOpaque) && alignof(Client) <= 16,
                  "a client must fit into the bytes that callers allocate");
    new (mOpaque) Client;
}

MediaSync::~MediaSync() {
    clientIn(mOpaque).~Client();
}

int MediaSync::setPlayerInsNumber(int number) {
    return clientIn(mOpaque).onSettings([=](Client::Settings& settings) {
        settings.playerNumber = number;
        return kOk;
    });
}

// Instances have no demultiplexer here, so both ids are ignored.
int MediaSync::allocInstance(int /*demuxId*/, int /*pcrPid*/, int* syncInsId) {
    const auto tv = Tv::current();
    const auto instance = tv ? tv->mediaSync().create() : nullptr;
    if (instance == nullptr) {
        return kFailed;
    }
    *syncInsId = instance->id();
    return kOk;
}

int MediaSync::bindInstance(unsigned int syncInsId, sync_stream_type /*streamType*/) {
    return clientIn(mOpaque).bind(syncInsId);
}

int MediaSync::setSyncMode(sync_mode mode) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        instance.setMode(mode);
        return kOk;
    });
}

int MediaSync::getSyncMode(sync_mode* mode) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *mode = instance.mode();
        return kOk;
    });
}

int MediaSync::setPause(bool pause) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        instance.setPause(pause, nowUs());
        return kOk;
    });
}

int MediaSync::getPause(bool* paused) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *paused = instance.paused();
        return kOk;
    });
}

// An instance has no maximum media time.
int MediaSync::updateAnchor(long anchorTimeMediaUs, long anchorTimeRealUs, long /*maxTimeMediaUs*/,
                            bool fromVideo) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        if (fromVideo) {
            instance.updateAnchorFromVideo(anchorTimeMediaUs, anchorTimeRealUs, nowUs());
        } else {
            instance.anchorFromAudio(anchorTimeMediaUs,
                                     anchorTimeRealUs != 0 ? anchorTimeRealUs : nowUs());
        }
        return kOk;
    });
}

// There is no maximum media time to exceed.
int MediaSync::getMediaTime(long realUs, long* outMediaUs, bool /*allowPastMaxTime*/) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *outMediaUs = instance.mediaTimeAt(realUs);
        return kOk;
    });
}

int MediaSync::getRealTimeFor(long targetMediaUs, long* outRealUs) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *outRealUs = instance.realTimeFor(targetMediaUs, nowUs());
        return kOk;
    });
}

int MediaSync::getRealTimeForNextVsync(long* outRealUs) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& /*instance*/) {
        const auto tv = Tv::current();
        if (!tv) {
            return kFailed;
        }
        *outRealUs = tv->display().nextVsyncAfter(korvane::tv::nowNs()).timeNs / 1000;
        return kOk;
    });
}

int MediaSync::reset() {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        instance.reset();
        return kOk;
    });
}

int MediaSync::getTrackMediaTime(long* outMediaUs) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *outMediaUs = instance.trackMediaTime();
        return kOk;
    });
}

int MediaSync::getStartingTimeMedia(long* outMediaUs) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *outMediaUs = instance.startingTimeMedia();
        return kOk;
    });
}

int MediaSync::setUpdateTimeThreshold(long threshold) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        instance.setUpdateThresholdUs(threshold);
        return kOk;
    });
}

int MediaSync::getUpdateTimeThreshold(long* threshold) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        *threshold = instance.updateThresholdUs();
        return kOk;
    });
}

int MediaSync::setParameter(mediasync_parameter type, void* arg) {
    return clientIn(mOpaque).onSettings([=](Client::Settings& settings) {
        settings.parameters[type] = *static_cast<const int32_t*>(arg);
        return kOk;
    });
}

int MediaSync::getParameter(mediasync_parameter type, void* arg) {
    return clientIn(mOpaque).onSettings([=](Client::Settings& settings) {
        const auto found = settings.parameters.find(type);
        if (found == settings.parameters.end()) {
            return kFailed;
        }
        *static_cast<int32_t*>(arg) = found->second;
        return kOk;
    });
}

int MediaSync::queueVideoFrame(long /*vpts*/, int /*size*/, int /*duration*/,
                               mediasync_time_unit /*unit*/) {
    return clientIn(mOpaque).onInstance([](SyncInstance& instance) {
        instance.countQueuedVideoFrame();
        return kOk;
    });
}

int MediaSync::VideoProcess(long vpts, long lastVpts, mediasync_time_unit unit,
                            mediasync_video_policy* policy) {
    return clientIn(mOpaque).onInstance([=](SyncInstance& instance) {
        if (unit != MEDIASYNC_UNIT_US) {
            return kFailed;
        }
        *policy = instance.videoPolicy(vpts, lastVpts, nowUs());
        return kOk;
    });
}

// SPDX-License-Identifier: Apache-2.0
// This library's atrace calls take precedence over libcutils'. A call goes to the observer and,
// while a file is recorded, into the ring as one entry. A thread of low priority moves the ring's
// entries into the file 20 times a second. On a full disk it keeps emptying the ring, so that lost
// events are counted and playback continues.
#include "tv/Trace.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "tv/Observer.h"
#include "tv/ScopedLock.h"
#include "tv/TraceFile.h"
#include "tv/TraceRing.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::tv {
namespace {

/// The platform's video tag.
constexpr uint64_t kVideoTag = 1 << 9;
constexpr auto kWriteInterval = std::chrono::milliseconds(50);
/// Nice value of the writer, of 19, so that playback goes first.
constexpr int kWriterNice = 10;

/// One recording, from `startTrace` to `stopTrace`.
class Recording {
public:
    /// @return empty, or why the file cannot be written
    std::string open(const std::string& path);
    void start() {
        mWriter = std::thread([this] { run(); });
    }
    void put(TraceEvent::Kind kind, int32_t thread, const char* name, int64_t timeNs,
             int64_t value);
    int32_t track(const std::string& name);
    TraceReport stop();

private:
    void run();
    void drain();

    TraceRing mRing;
    std::atomic<int64_t> mLost{0};
    TraceFile mFile;  ///< the writer's while it runs
    TraceReport mReport;
    std::mutex mLock;
    std::condition_variable mWake;
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    std::vector<std::string> mTracks KORVANE_GUARDED_BY(mLock);
    size_t mTracksWritten = 0;  ///< the writer's
    std::thread mWriter;
};

struct TraceState {
    std::atomic<bool> recording{false};  ///< checked by trace points before the lock
    std::atomic<bool> tagEnabled{false};
    Observer<char, const std::string&, int64_t> observer;
    std::mutex controlLock KORVANE_ACQUIRED_BEFORE(lock);  ///< serialises start and stop
    SharedMutex lock;  ///< held shared by trace points while they use `current`
    std::unique_ptr<Recording> current KORVANE_GUARDED_BY(lock);
    TraceReport lastReport KORVANE_GUARDED_BY(controlLock);
};

/// Never destroyed: libraries may trace while the process ends.
TraceState& state() {
    static TraceState& instance = *new TraceState;
    return instance;
}

int32_t threadId() {
    if (VirtualTime::active()) {
        return VirtualTime::threadNumber();
    }
    static thread_local const auto id = static_cast<int32_t>(syscall(SYS_gettid));
    return id;
}

std::string Recording::open(const std::string& path) {
    mReport.path = path;
    mFile.open(path);
    return mFile.failure();
}

void Recording::put(TraceEvent::Kind kind, int32_t thread, const char* name, int64_t timeNs,
                    int64_t value) {
    TraceEvent event;
    event.kind = kind;
    event.thread = thread;
    event.timeNs = timeNs;
    event.value = value;
    std::strncpy(event.name.data(), name, event.name.size() - 1);
    if (!mRing.put(event)) {
        mLost.fetch_add(1, std::memory_order_relaxed);
    }
}

int32_t Recording::track(const std::string& name) {
    const std::lock_guard<std::mutex> guard(mLock);
    for (size_t i = 0; i < mTracks.size(); ++i) {
        if (mTracks[i] == name) {
            return static_cast<int32_t>(i);
        }
    }
    mTracks.push_back(name);
    return static_cast<int32_t>(mTracks.size() - 1);
}

void Recording::run() {
    setpriority(PRIO_PROCESS, static_cast<id_t>(threadId()), kWriterNice);
    bool stopping = false;
    while (!stopping) {
        {
            WaitLock guard(mLock);
            stopping = mWake.wait_for(guard.forWait(), kWriteInterval,
                                      [this]() KORVANE_REQUIRES(mLock) { return mStopping; });
        }
        drain();
        stopping ? mFile.finish() : mFile.write();
    }
}

void Recording::drain() {
    TraceEvent event;
    while (mRing.take(&event)) {
        if (event.kind == TraceEvent::Kind::Slice) {
            const std::lock_guard<std::mutex> guard(mLock);
            for (; mTracksWritten < mTracks.size(); ++mTracksWritten) {
                mFile.addTrack(static_cast<int32_t>(mTracksWritten), mTracks[mTracksWritten]);
            }
        }
        mFile.add(event);
    }
}

TraceReport Recording::stop() {
    {
        const std::lock_guard<std::mutex> guard(mLock);
        mStopping = true;
    }
    mWake.notify_one();
    mWriter.join();
    mReport.written = mFile.written();
    mReport.lost = mLost + mFile.lost();
    mReport.failure = mFile.failure();
    return mReport;
}

void tracePoint(TraceEvent::Kind kind, char letter, const char* name, int64_t value) {
    TraceState& trace = state();
    if (trace.observer.present()) {
        trace.observer.call(letter, name, value);
    }
    if (!trace.recording) {
        return;
    }
    const SharedLock guard(trace.lock);
    if (trace.current) {
        trace.current->put(kind, threadId(), name, nowNs(), value);
    }
}

}  // namespace

bool startTrace(const std::string& path, std::string* error) {
    stopTrace();
    TraceState& trace = state();
    const std::lock_guard<std::mutex> control(trace.controlLock);
    auto recording = std::make_unique<Recording>();
    if (std::string failure = recording->open(path); !failure.empty()) {
        if (error != nullptr) {
            *error = std::move(failure);
        }
        return false;
    }
    const std::lock_guard<SharedMutex> guard(trace.lock);
    trace.current = std::move(recording);
    trace.recording = true;
    trace.current->start();
    return true;
}

TraceReport stopTrace() {
    TraceState& trace = state();
    const std::lock_guard<std::mutex> control(trace.controlLock);
    std::unique_ptr<Recording> recording;
    {
        const std::lock_guard<SharedMutex> guard(trace.lock);
        trace.recording = false;
        recording = std::move(trace.current);
    }
    if (recording) {
        trace.lastReport = recording->stop();
    }
    return trace.lastReport;
}

bool recordingTrace() {
    return state().recording;
}

void traceSlice(const std::string& track, const std::string& name, int64_t startNs, int64_t endNs) {
    TraceState& trace = state();
    if (!trace.recording) {
        return;
    }
    const SharedLock guard(trace.lock);
    if (trace.current) {
        trace.current->put(TraceEvent::Kind::Slice, trace.current->track(track), name.c_str(),
                           startNs, endNs - startNs);
    }
}

void setTraceTagEnabled(bool enabled) {
    state().tagEnabled = enabled;
}

void observeTrace(std::function<void(char kind, const std::string& name, int64_t value)> observer) {
    state().observer.set(std::move(observer));
}

}  // namespace korvane::tv

extern "C" {

uint64_t atrace_get_enabled_tags() {
    const korvane::tv::TraceState& trace = korvane::tv::state();
    return trace.recording || trace.tagEnabled ? korvane::tv::kVideoTag : 0;
}

void atrace_begin_body(const char* name) {
    korvane::tv::tracePoint(korvane::tv::TraceEvent::Kind::Begin, 'B', name, 0);
}

void atrace_end_body() {
    korvane::tv::tracePoint(korvane::tv::TraceEvent::Kind::End, 'E', "", 0);
}

void atrace_int_body(const char* name, int32_t value) {
    korvane::tv::tracePoint(korvane::tv::TraceEvent::Kind::Counter, 'C', name, value);
}

void atrace_int64_body(const char* name, int64_t value) {
    korvane::tv::tracePoint(korvane::tv::TraceEvent::Kind::Counter, 'C', name, value);
}

void atrace_async_begin_body(const char* name, int32_t cookie) {
    korvane::tv::tracePoint(korvane::tv::TraceEvent::Kind::AsyncBegin, 'b', name, cookie);
}

void atrace_async_end_body(const char* name, int32_t cookie) {
    korvane::tv::tracePoint(korvane::tv::TraceEvent::Kind::AsyncEnd, 'e', name, cookie);
}
}

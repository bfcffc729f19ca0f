// SPDX-License-Identifier: Apache-2.0
// This library's atrace calls take precedence over libcutils'. Each event is encoded on the thread
// that records it, into a block of memory under a lock. In real time a thread of low priority takes
// the block 20 times a second and writes it; in virtual time the thread that fills a block does. On
// a full disk the blocks are still taken, so that lost events are counted and playback continues.
#include "tv/Trace.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>

#include "tv/Observer.h"
#include "tv/ScopedLock.h"
#include "tv/TraceEncoder.h"
#include "tv/TraceFile.h"
#include "tv/Tv.h"
#include "tv/clock/VirtualTime.h"

namespace korvane::tv {
namespace {

/// The platform's video tag.
constexpr uint64_t kVideoTag = 1 << 9;
constexpr auto kWriteInterval = std::chrono::milliseconds(50);
/// Nice value of the writer, of 19, so that playback goes first.
constexpr int kWriterNice = 10;
/// A block that virtual time writes.
constexpr size_t kBlockBytes = size_t{16} * 1024;
/// Most bytes that wait for the writer: several seconds of everything that is traced.
constexpr size_t kMostBytes = size_t{2} * 1024 * 1024;

int32_t threadId() {
    if (VirtualTime::active()) {
        return VirtualTime::threadNumber();
    }
    static thread_local const auto id = static_cast<int32_t>(syscall(SYS_gettid));
    return id;
}

/// The calling thread's name.
std::string threadName() {
    if (VirtualTime::active()) {
        // A thread without a name shows its function, with the library in brackets.
        const std::string name = VirtualTime::threadName(VirtualTime::threadNumber());
        return name.substr(0, name.find(" ("));
    }
    std::array<char, 17> name{};
    prctl(PR_GET_NAME, name.data());
    return name.data();
}

int64_t clockNs(clockid_t clock) {
    constexpr int64_t kNsPerSecond = 1'000'000'000;
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * kNsPerSecond + time.tv_nsec;
}

/// Virtual runs are reproducible to the byte, so they carry a fixed process number.
TraceProcess thisProcess() {
    return {VirtualTime::active() ? 1 : getpid(), program_invocation_short_name};
}

/// One recording, from `startTrace` to `stopTrace`.
class Recording {
public:
    /// @return empty, or why the file cannot be written
    std::string open(const std::string& path);
    void start();
    /// Adds one event by calling `encode` with the encoder, or counts it as lost.
    template <typename Encode>
    void put(Encode encode);
    TraceReport stop();

private:
    void run();
    void write();

    std::mutex mLock;
    std::string mBlock KORVANE_GUARDED_BY(mLock);
    int64_t mBlockEvents KORVANE_GUARDED_BY(mLock) = 0;
    TraceEncoder mEncoder KORVANE_GUARDED_BY(mLock){
        &mBlock, {nowNs(), clockNs(CLOCK_BOOTTIME), clockNs(CLOCK_REALTIME)}, thisProcess()};
    int64_t mLost KORVANE_GUARDED_BY(mLock) = 0;
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    std::condition_variable mWake;

    std::mutex mFileLock KORVANE_ACQUIRED_BEFORE(mLock);  ///< held from taking a block to its end
    TraceFile mFile KORVANE_GUARDED_BY(mFileLock);
    std::string mTaken KORVANE_GUARDED_BY(mFileLock);
    TraceReport mReport;
    const bool mVirtual = VirtualTime::active();
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

std::string Recording::open(const std::string& path) {
    const std::lock_guard<std::mutex> guard(mFileLock);
    mReport.path = path;
    mFile.open(path);
    return mFile.failure();
}

void Recording::start() {
    if (!mVirtual) {
        mWriter = std::thread([this] { run(); });
    }
}

template <typename Encode>
void Recording::put(Encode encode) {
    bool full = false;
    {
        const std::lock_guard<std::mutex> guard(mLock);
        if (mBlock.size() >= kMostBytes) {
            ++mLost;
            return;
        }
        encode(mEncoder);
        ++mBlockEvents;
        full = mBlock.size() >= kBlockBytes;
    }
    if (full && mVirtual) {
        write();
    }
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
        write();
    }
}

void Recording::write() {
    const std::lock_guard<std::mutex> file(mFileLock);
    int64_t events = 0;
    {
        const std::lock_guard<std::mutex> guard(mLock);
        mTaken.swap(mBlock);
        events = std::exchange(mBlockEvents, 0);
    }
    mFile.write(mTaken, events);
    mTaken.clear();
}

TraceReport Recording::stop() {
    if (mWriter.joinable()) {
        {
            const std::lock_guard<std::mutex> guard(mLock);
            mStopping = true;
        }
        mWake.notify_one();
        mWriter.join();
    }
    write();
    const std::lock_guard<std::mutex> file(mFileLock);
    const std::lock_guard<std::mutex> guard(mLock);
    mFile.close();
    mReport.written = mFile.written();
    mReport.lost = mLost + mFile.lost();
    mReport.failure = mFile.failure();
    return mReport;
}

/// Calls `encode` with the encoder while a trace is recorded.
template <typename Encode>
void record(Encode encode) {
    TraceState& trace = state();
    if (!trace.recording) {
        return;
    }
    const Undisturbed watched;
    const SharedLock guard(trace.lock);
    if (trace.current) {
        trace.current->put(encode);
    }
}

/// The same for an event of the calling thread.
template <typename Encode>
void recordOfThread(Encode encode) {
    record([&](TraceEncoder& encoder) {
        const int32_t thread = threadId();
        if (!encoder.knows(thread)) {
            encoder.nameThread(thread, threadName());
        }
        encode(encoder, thread, nowNs());
    });
}

void observe(char letter, const char* name, int64_t value) {
    if (state().observer.present()) {
        state().observer.call(letter, name, value);
    }
}

}  // namespace

bool startTrace(const std::string& path, std::string* error) {
    const Undisturbed watched;
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
    const Undisturbed watched;
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

void traceState(const std::string& track, const std::string& name, int64_t timeNs,
                const TraceDetails& details) {
    record([&](TraceEncoder& encoder) { encoder.state(track, name, timeNs, details); });
}

void traceSlice(const std::string& track, const std::string& name, int64_t startNs, int64_t endNs,
                const TraceDetails& details) {
    record([&](TraceEncoder& encoder) { encoder.slice(track, name, startNs, endNs, details); });
}

void traceInstant(const std::string& track, const std::string& name, int64_t timeNs,
                  const TraceDetails& details) {
    record([&](TraceEncoder& encoder) { encoder.instant(track, name, timeNs, details); });
}

void traceCounter(const std::string& name, int64_t value, int64_t timeNs) {
    record([&](TraceEncoder& encoder) { encoder.counter(name, value, timeNs); });
}

void traceTimeline(const TraceTimeline& frame) {
    record([&](TraceEncoder& encoder) { encoder.timeline(frame); });
}

void traceLog(const TraceLogLine& line) {
    recordOfThread([&](TraceEncoder& encoder, int32_t thread, int64_t timeNs) {
        encoder.log(thread, line, timeNs);
    });
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
    korvane::tv::observe('B', name, 0);
    korvane::tv::recordOfThread(
        [&](auto& encoder, int32_t thread, int64_t ns) { encoder.beginSection(thread, name, ns); });
}

void atrace_end_body() {
    korvane::tv::observe('E', "", 0);
    korvane::tv::recordOfThread(
        [](auto& encoder, int32_t thread, int64_t ns) { encoder.endSection(thread, ns); });
}

void atrace_int64_body(const char* name, int64_t value) {
    korvane::tv::observe('C', name, value);
    korvane::tv::traceCounter(name, value, korvane::tv::nowNs());
}

void atrace_int_body(const char* name, int32_t value) {
    atrace_int64_body(name, value);
}

void atrace_async_begin_body(const char* name, int32_t cookie) {
    korvane::tv::observe('b', name, cookie);
    korvane::tv::record(
        [&](auto& encoder) { encoder.beginAsync(name, cookie, korvane::tv::nowNs()); });
}

void atrace_async_end_body(const char* name, int32_t cookie) {
    korvane::tv::observe('e', name, cookie);
    korvane::tv::record(
        [&](auto& encoder) { encoder.endAsync(name, cookie, korvane::tv::nowNs()); });
}
}

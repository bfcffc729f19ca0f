// SPDX-License-Identifier: Apache-2.0
// Encodes the events of tv/Trace.h as packets of a Perfetto trace, appended to a string as
// protobuf.
//
// Each call appends whole packets, so the string may be cut between any two calls. All packets
// belong to one sequence. A thread, a counter or a track is described by a packet of its own before
// its first event. A repeated name is written once and is a number after that. The memory for both
// is bounded: names beyond the first few hundred are written out each time, and a track may be
// described again.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "tv/Trace.h"

namespace korvane::tv {

/// The clocks of one moment. Times of events are monotonic.
struct TraceClocks {
    int64_t monotonicNs = 0;
    int64_t bootNs = 0;
    int64_t realNs = 0;
};

/// A process as the trace shows it.
struct TraceProcess {
    int32_t pid = 0;
    std::string name;
};

/// One thread at a time.
class TraceEncoder {
public:
    /// @param out  receives the packets; it may be emptied between two calls
    TraceEncoder(std::string* out, const TraceClocks& clocks, TraceProcess process);

    /// Whether `nameThread` is still to be called before a thread's first event.
    bool knows(int32_t thread) const { return mThreads.count(thread) > 0; }
    void nameThread(int32_t thread, const std::string& name);

    void beginSection(int32_t thread, const std::string& name, int64_t timeNs);
    void endSection(int32_t thread, int64_t timeNs);
    void beginAsync(const std::string& name, int64_t cookie, int64_t timeNs);
    void endAsync(const std::string& name, int64_t cookie, int64_t timeNs);

    // See tv/Trace.h for each.
    void state(const std::string& track, const std::string& name, int64_t timeNs,
               const TraceDetails& details);
    void slice(const std::string& track, const std::string& name, int64_t startNs, int64_t endNs,
               const TraceDetails& details);
    void instant(const std::string& track, const std::string& name, int64_t timeNs,
                 const TraceDetails& details);
    void counter(const std::string& name, int64_t value, int64_t timeNs);
    void timeline(const TraceTimeline& frame);
    void log(int32_t thread, const TraceLogLine& line, int64_t timeNs);

private:
    uint64_t processTrack(const TraceProcess& process);
    uint64_t namedTrack(uint64_t kind, const std::string& name);
    uint64_t asyncTrack(const std::string& name, int64_t cookie);
    bool isNew(uint64_t uuid);
    uint64_t sectionName(const std::string& name, bool* isNew);
    void frameSlice(const TraceTimeline& frame, bool actual);

    std::string& mOut;
    const TraceProcess mProcess;
    const int64_t mRealMinusMonotonicNs;
    std::unordered_map<std::string, uint64_t> mNames;  ///< of sections
    std::unordered_set<int32_t> mThreads;
    std::unordered_set<uint64_t> mDescribed;
    struct State {
        int64_t sinceNs = 0;
        bool open = false;
    };
    std::unordered_map<uint64_t, State> mStates;  ///< of each track that has had one
    int64_t mCookie = 0;
};

}  // namespace korvane::tv

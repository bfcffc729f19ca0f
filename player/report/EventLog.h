// SPDX-License-Identifier: Apache-2.0
// The event log: one line per event, in the order of the playback's time, the same to the byte for
// the same input, options and seed.
//
// Events of one moment are ordered by kind and frame. A frame's events become known only with its
// outcome, so events wait until no earlier one can come any more (`release`), and are then written
// and hashed. Any thread may add.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/Event.h"

namespace korvane::player {

/// Over the lines of a log.
class EventHash {
public:
    void add(std::string_view lines);
    /// 64 bits, as 16 digits.
    std::string text() const;

private:
    uint64_t mHash = 0xcbf29ce484222325;  ///< FNV-1a's offset basis
};

class EventLog {
public:
    /// @param outs  where lines go; none: events are only hashed
    explicit EventLog(std::vector<std::ostream*> outs);

    /// Times in lines count from here. Called before any `release`.
    void begin(int64_t startNs);
    void add(Event event);
    /// Writes every event before a time: none earlier than that will be added any more.
    void release(int64_t beforeNs);
    /// Writes the rest. Whether the stream took it all is for its owner to ask.
    void finish();

    /// 64 bits, as 16 digits, over all lines written.
    std::string hash() const;
    int64_t lines() const;

private:
    void write(const Event& event) KORVANE_REQUIRES(mLock);
    void drainBlock() KORVANE_REQUIRES(mLock);

    mutable std::mutex mLock;
    std::vector<Event> mWaiting KORVANE_GUARDED_BY(mLock);
    std::string mBlock KORVANE_GUARDED_BY(mLock);  ///< lines not yet hashed and written
    const std::vector<std::ostream*> mOuts KORVANE_GUARDED_BY(mLock);
    int64_t mStartNs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mLines KORVANE_GUARDED_BY(mLock) = 0;
    EventHash mHash KORVANE_GUARDED_BY(mLock);
};

}  // namespace korvane::player

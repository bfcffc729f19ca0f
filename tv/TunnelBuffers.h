// SPDX-License-Identifier: Apache-2.0
// The buffers of one tunnel id by stage, and what each vsync does to them.
//
//   stage      left when
//   waiting    due at a vsync: the newest due one goes on screen, older ones are superseded and
//              returned without a fence
//   on screen  replaced at vsync V: returned, with a fence that signals at the vsync after V
//   leaving    at that next vsync: until then the panel still reads the replaced buffer
//   returned   the producer takes it back
//
// Stages hold record numbers, and each holds few, so no step searches all records. A buffer's
// memory is held until the panel is done. A release fence is made when the producer takes the
// buffer back. Time is an argument. Not thread-safe: the tunnel's lock guards it.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "tv/Display.h"
#include "tv/HeldBuffer.h"
#include "tv/Tunnel.h"
#include "tv/clock/FencePipe.h"

namespace korvane::tv {

/// One id's buffer records by number. Numbers count from 0; finished records leave at the front.
class BufferRecords {
public:
    int64_t first() const { return mFirst; }
    int64_t end() const { return mFirst + static_cast<int64_t>(mRecords.size()); }
    BufferRecord& at(int64_t number) { return mRecords[static_cast<size_t>(number - mFirst)]; }
    const std::deque<BufferRecord>& all() const { return mRecords; }
    void add(const BufferRecord& record) { mRecords.push_back(record); }
    BufferRecord takeFirst();

private:
    std::deque<BufferRecord> mRecords;
    int64_t mFirst = 0;
};

class TunnelBuffers {
public:
    /// @param records  receives one record per queued buffer; outlives this object
    explicit TunnelBuffers(BufferRecords& records) : mRecords(&records) {}

    /// Queues a buffer, given by the fields that the producer and the tunnel know; the picture's
    /// are read here.
    /// @return 0, or -EMFILE when the process is out of descriptors
    int queue(BufferRecord buffer);
    /// Hands the oldest returned buffer to the producer.
    /// @return 0, -EAGAIN without one, or why its fence could not be made
    int takeBack(FencePipes& pipes, int* bufferFd, int* fenceFd, int64_t nowNs);
    /// Gives up every buffer and signals every fence.
    void disconnect(int64_t nowNs);

    void scanOut(const Vsync& vsync, const Vsync& next, const TunnelFaults& faults);
    /// Signals the fences whose time has come.
    /// @return when the next one signals, or INT64_MAX
    int64_t signalFences(int64_t nowNs);

    /// The record of the buffer on screen, with the picture that its memory holds now.
    std::optional<BufferRecord> onScreen() const;
    /// Whether a stage, the panel or a pending fence still needs a buffer.
    bool uses(int64_t number) const;
    /// Buffers waiting, on screen, or returned and not taken back.
    int held() const;
    /// Stages in words, for people.
    std::string dump() const;

private:
    /// What the producer gets with a released buffer.
    enum class FenceKind { None, Pipe, WrongMode };
    struct Returned {
        int64_t number;
        FenceKind fence;
    };
    /// A fence whose time has not come. `pipe` is set once the producer has the descriptor.
    struct PendingFence {
        int64_t signalNs;
        FencePipe pipe;
    };

    BufferRecord& at(int64_t number) const { return mRecords->at(number); }
    int64_t takeNewestDue(const Vsync& vsync);
    void replace(int64_t number, const Vsync& vsync, const Vsync& next, const TunnelFaults& faults);
    void checkPicture(int64_t number);
    int makeFence(FencePipes& pipes, const Returned& buffer, int* fenceFd);

    BufferRecords* mRecords;
    std::deque<int64_t> mWaiting;
    int64_t mOnScreen = -1;
    int64_t mLeaving = -1;
    std::deque<Returned> mReturned;
    BufferMemory mBufferMemory;
    std::map<int64_t, HeldBuffer> mMemory;    ///< by number
    std::map<int64_t, PendingFence> mFences;  ///< by number
};

}  // namespace korvane::tv

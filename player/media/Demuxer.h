// SPDX-License-Identifier: Apache-2.0
// An input being read packet by packet, on the media time line that starts at 0.
//
// A file is open twice, once for each of the two readers: neither can starve the other however
// badly the file is interleaved, and each seeks on its own. What can be read only once has one
// demuxer that both share: a packet that the one reader meets and the other wants waits in a queue.
// Where the next packet of a reader does not come within kMostQueuedBytes of the other's, its
// stream counts as ended, so that memory stays bounded.
//
// It ends in one of two ways: at the end of the input, or where the input breaks off (a read error,
// or an end well before the duration that its header promises or the last data that the index
// names).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/media/Ffmpeg.h"
#include "player/media/FrameSource.h"
#include "player/media/MediaRequest.h"
#include "player/media/PipeInput.h"
#include "player/media/StreamSuccession.h"
#include "player/media/TimelineMapper.h"

namespace korvane::player {

/// Four seconds of the largest broadcast streams are a tenth of it.
constexpr size_t kMostQueuedBytes = size_t{256} * 1024 * 1024;

/// `keep`, `read`, `reachedUs`, `streams` and `seek`: any thread; what hands out FFmpeg's own:
/// before a second reader reads.
class Demuxer {
public:
    /// @throws InputError
    explicit Demuxer(const MediaRequest& request, size_t mostQueuedBytes = kMostQueuedBytes);
    ~Demuxer() = default;
    Demuxer(const Demuxer&) = delete;
    Demuxer& operator=(const Demuxer&) = delete;

    AVFormatContext& format() const { return *mFormat; }
    /// Stays valid; the list of streams may grow while the other reader reads.
    AVStream& stream(int index) const { return *mFormat->streams[index]; }
    /// Without it the input can be read once, from beginning to end.
    bool canSeek() const { return mCanSeek; }
    /// Raw streams: a seek goes to the beginning, and whoever counts time has to start again.
    bool hasTimes() const {
        const std::lock_guard<std::mutex> guard(mLock);
        return !mReach.empty();
    }
    int64_t startUs() const { return mStartUs; }
    int64_t toMediaUs(int64_t timestamp, AVRational timeBase) const {
        return av_rescale_q(timestamp, timeBase, kMicroseconds) - mStartUs;
    }

    /// Where the container's times may jump, makes them continuous by these two streams, and goes
    /// on with them where others of their kind and program take over. Packets of those have the
    /// index of their own stream and the time base of the one that was taken. Call before any other
    /// stream is kept.
    /// @param audio  -1: there is none
    void follow(int video, int audio);
    std::vector<Splice> splices() const;
    /// A stream that was taken goes on as another.
    struct Succession {
        int stream = -1;
        int as = -1;
        int64_t atUs = 0;
    };
    std::vector<Succession> successions() const;
    /// The decoder parameters of a followed stream, or of one that took over.
    const AVCodecParameters& parameters(int stream) const;
    /// From here on packets of this stream wait until they are read; all others are dropped.
    /// @param timesOnly  their data is not wanted
    void keep(int stream, bool timesOnly);
    /// The same for audio that is read alone: all other streams are skipped as they are read.
    void keepOnly(int stream, bool timesOnly);
    /// Takes the next packet of a stream that is kept.
    ReadStatus read(int stream, AVPacket* packet);
    /// Media time that any stream's data reaches.
    int64_t reachedUs() const;
    /// Streams that are known by now: some containers bring new ones on the way.
    int streams() const;
    /// The stream in which one of the same kind goes on after its end, as where a broadcaster
    /// changes the number of its packets. After the input's end.
    struct Successor {
        int stream = -1;  ///< -1: there is none
        int64_t fromUs = 0;
    };
    Successor successorOf(int stream) const;
    /// Goes to a packet at or before a media time, as far as the container can tell.
    /// @return false when it cannot
    bool seek(int stream, int64_t mediaUs);

private:
    struct Queue {
        bool timesOnly = false;
        std::deque<PacketPtr> packets;
        size_t bytes = 0;
    };
    struct Reach {
        int64_t fromUs = 0;
        int64_t toUs = 0;
    };
    void open(const MediaRequest& request);
    AVIOContext* openData();
    const AVInputFormat* findFormat(AVIOContext* data, const std::string& name) const;
    int openFormat(const MediaRequest& request, AVIOContext* data, const AVInputFormat* found);
    std::optional<ReadStatus> take(int stream, AVPacket* packet);
    bool nothingCameFor(int stream) const;
    void readOne() KORVANE_REQUIRES(mReading);
    void place(PacketPtr packet) KORVANE_REQUIRES(mLock);
    void mapTimes(PacketPtr packet) KORVANE_REQUIRES(mLock);
    void pushMapped(std::vector<PacketPtr> packets) KORVANE_REQUIRES(mLock);
    int relativeOf(int stream) const;
    int takenFor(int stream) const KORVANE_REQUIRES(mLock);
    void noteSuccession(int stream, int as, int64_t atUs) KORVANE_REQUIRES(mLock);
    void takeMapped() KORVANE_REQUIRES(mLock);
    bool seekRaw(int stream, int64_t mediaUs) KORVANE_REQUIRES(mReading);
    bool seekByReading(int stream, int64_t mediaUs) KORVANE_REQUIRES(mReading);
    bool rewind() KORVANE_REQUIRES(mReading);
    bool dropUpTo(int stream, int64_t mediaUs);
    void forget();
    std::optional<int64_t> nextUs(int stream) KORVANE_REQUIRES(mReading);
    bool othersAreFull(int stream) const KORVANE_REQUIRES(mLock);
    bool endsEarly() const KORVANE_REQUIRES(mLock);
    bool indexGoesOn() const;

    const InputName mInput;
    std::function<bool()> mInterrupted;
    const std::optional<int64_t> mLimitUs;
    const size_t mMostQueuedBytes;
    std::unique_ptr<PipeInput> mPipe;
    FilePtr mFile;
    FormatPtr mFormat;
    bool mCanSeek = true;
    bool mListed = true;  ///< false: a playlist that does not say where its files begin
    int64_t mStartUs = 0;

    int mFollowed[2] = {-1, -1};  ///< video and audio; -1: times do not jump, or no such stream
    std::optional<TimelineMapper> mMapper KORVANE_GUARDED_BY(mLock);
    StreamSuccession mSuccession KORVANE_GUARDED_BY(mLock);
    std::map<int, int> mTakenFor KORVANE_GUARDED_BY(mLock);  ///< for streams that took over
    std::map<int, int> mActing KORVANE_GUARDED_BY(mLock);    ///< whose packets came last
    std::vector<Succession> mSuccessions KORVANE_GUARDED_BY(mLock);
    std::map<int, ParametersPtr> mParameters KORVANE_GUARDED_BY(mLock);
    std::deque<PacketPtr> mUnmapped KORVANE_GUARDED_BY(mLock);  ///< those that the mapper holds
    std::mutex mReading;  ///< held while FFmpeg reads, which may wait for data; before mLock
    mutable std::mutex mLock;
    std::map<int, Queue> mQueues KORVANE_GUARDED_BY(mLock);
    std::map<int, Reach> mReach KORVANE_GUARDED_BY(mLock);  ///< of each stream, as far as read
    std::optional<ReadStatus> mEnded KORVANE_GUARDED_BY(mLock);
    int64_t mReachedUs KORVANE_GUARDED_BY(mLock) = 0;
    int mStreams KORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace korvane::player

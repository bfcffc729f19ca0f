// SPDX-License-Identifier: Apache-2.0
#include "player/media/Demuxer.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "player/base/Errors.h"
#include "tv/clock/VirtualTime.h"

extern "C" {
#include <libavutil/cpu.h>
}

namespace korvane::player {
namespace {

/// An input that ends this much before its header's duration breaks off. Containers round their
/// durations, and streams of one file end apart by less than this.
constexpr int64_t kBreakOffToleranceUs = 500'000;

/// By how much a stream may overlap the one that it goes on from: a few reordered pictures.
constexpr int64_t kStreamOverlapUs = 200'000;

/// Key packets are nearer to each other than this.
constexpr int64_t kAstrayUs = 10'000'000;

/// A writer to a pipe that is alive brings data within this time.
constexpr int64_t kLeastPatienceUs = 1'000'000;

/// Errors that FFmpeg reports unclearly, or not at all, in plain words.
void checkIsFile(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        const std::string reason = std::generic_category().message(errno);
        throw InputError("cannot open '" + path + "': " + reason + "; give an existing media file");
    }
    if (S_ISDIR(status.st_mode)) {
        throw InputError("'" + path + "' is a directory; give a media file");
    }
    if (access(path.c_str(), R_OK) != 0) {
        throw InputError("'" + path + "' may not be read (" +
                         std::generic_category().message(errno) +
                         "); give a file that you may read");
    }
    if (S_ISREG(status.st_mode) && status.st_size == 0) {
        throw InputError("'" + path + "' is empty; give a media file, or fetch this one again");
    }
}

/// FFmpeg's filters come with its library of devices, which draws in dozens of libraries of the
/// desktop. So it is loaded only for those who ask for it.
void loadGenerators() {
    // FFmpeg's libraries of formats and of devices count their major versions alike.
    const std::string library =
        "libavdevice.so." + std::to_string(AV_VERSION_MAJOR(avformat_version()));
    void* devices = dlopen(library.c_str(), RTLD_NOW);
    void* start = devices != nullptr ? dlsym(devices, "avdevice_register_all") : nullptr;
    if (start == nullptr) {
        throw InputError("lavfi: needs FFmpeg's " + library +
                         ", which is not here; install the ffmpeg program, it comes with it");
    }
    if (tv::VirtualTime::active()) {
        // Filters would start as many threads as there are cores, and runs would differ by them.
        av_cpu_force_count(1);
    }
    reinterpret_cast<void (*)()>(start)();
}

int isInterrupted(void* interrupted) {
    const auto& asked = *static_cast<const std::function<bool()>*>(interrupted);
    return asked && asked() ? 1 : 0;
}

/// A packet's cost in memory while it waits.
size_t costOf(const AVPacket& packet) {
    return sizeof packet + static_cast<size_t>(packet.size);
}

/// Keeps times and flags only.
void dropData(AVPacket* packet) {
    av_buffer_unref(&packet->buf);
    packet->data = nullptr;
    packet->size = 0;
    av_packet_free_side_data(packet);
}

/// Formats that open other files or addresses.
bool isPlaylist(const AVInputFormat& format) {
    for (const char* name : {"concat", "hls", "dash", "imf"}) {
        if (std::strcmp(format.name, name) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string errorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

Demuxer::Demuxer(const MediaRequest& request, size_t mostQueuedBytes)
    : mInput(inputOf(request.name)),
      mInterrupted(request.interrupted),
      mLimitUs(request.limitUs),
      mMostQueuedBytes(mostQueuedBytes) {
    av_log_set_level(AV_LOG_QUIET);
    open(request);
    mStartUs = mFormat->start_time == AV_NOPTS_VALUE ? 0 : mFormat->start_time;
    mStreams = static_cast<int>(mFormat->nb_streams);
    const bool seekableData =
        mFormat->pb == nullptr || (mFormat->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
    mCanSeek = seekableData && mListed && mInput.kind != InputKind::Generator;
}

/// Opens data here instead of in FFmpeg; null: FFmpeg opens it.
AVIOContext* Demuxer::openData() {
    if (mInput.kind == InputKind::Pipe) {
        mPipe = std::make_unique<PipeInput>(mInput.opened, mInterrupted, [this] {
            return mLimitUs ? std::max(*mLimitUs - reachedUs(), kLeastPatienceUs) : INT64_MAX;
        });
        return mPipe->context();
    }
    if (mInput.kind != InputKind::File) {
        return nullptr;
    }
    checkIsFile(mInput.opened);
    AVIOContext* opened = nullptr;
    avio_open2(&opened, ("file:" + mInput.opened).c_str(), AVIO_FLAG_READ, nullptr, nullptr);
    mFile.reset(opened);
    return opened;
}

/// The format of the data, detected or named by the user.
const AVInputFormat* Demuxer::findFormat(AVIOContext* data, const std::string& name) const {
    const AVInputFormat* found = nullptr;
    if (!mInput.demuxer.empty()) {
        found = av_find_input_format(mInput.demuxer.c_str());
    } else if (data != nullptr) {
        av_probe_input_buffer2(data, &found, mInput.opened.c_str(), nullptr, 0, 0);
    }
    if (found != nullptr && data != nullptr && isPlaylist(*found)) {
        throw InputError("'" + name + "' is a playlist, and a file is played alone; to play what " +
                         "it lists write " + found->name + ":" + name);
    }
    return found;
}

void Demuxer::open(const MediaRequest& request) {
    if (mInput.kind == InputKind::Generator) {
        loadGenerators();
    } else if (mInput.kind == InputKind::Address) {
        avformat_network_init();
    }
    AVIOContext* data = openData();
    const AVInputFormat* found = findFormat(data, request.name);
    // FFmpeg's demuxer for text-mode pictures takes any text file by its name.
    const bool unknown =
        data != nullptr && (found == nullptr || std::strcmp(found->name, "tty") == 0);
    int result = unknown ? AVERROR_INVALIDDATA : openFormat(request, data, found);
    if (result >= 0) {
        result = avformat_find_stream_info(mFormat.get(), nullptr);
    }
    if (result < 0 && mPipe && mPipe->nothingCame()) {
        throw InputError("'" + request.name + "' is empty; write a film into it");
    }
    if (result < 0 && data != nullptr) {
        throw InputError("'" + request.name +
                         "' is no media file that can be played, or is cut off before "
                         "its index (" +
                         errorText(result) + "); give a whole media file");
    }
    if (result < 0) {
        throw InputError("cannot open '" + request.name + "' (" + errorText(result) +
                         "); give a media file, or an input that FFmpeg knows");
    }
}

/// @return FFmpeg's error, or 0 and more
int Demuxer::openFormat(const MediaRequest& request, AVIOContext* data,
                        const AVInputFormat* found) {
    AVDictionary* options = nullptr;
    if (mInput.kind != InputKind::Address) {
        // Only files of this machine, and of a file only itself.
        av_dict_set(&options, "protocol_whitelist", data != nullptr ? "none" : "file", 0);
    }
    if (mInput.demuxer == "concat") {
        av_dict_set(&options, "safe", "0", 0);  // also files above the list's folder
    }
    if (request.rate) {
        const std::string rate =
            std::to_string(request.rate->frames) + "/" + std::to_string(request.rate->seconds);
        av_dict_set(&options, "framerate", rate.c_str(), 0);
    }
    AVFormatContext* context = avformat_alloc_context();
    context->pb = data;
    context->interrupt_callback = {isInterrupted, &mInterrupted};
    const int result = avformat_open_input(&context, mInput.opened.c_str(), found, &options);
    const bool rateIgnored = av_dict_get(options, "framerate", nullptr, 0) != nullptr;
    av_dict_free(&options);
    mFormat.reset(context);
    if (result >= 0 && rateIgnored) {
        throw InputError("--input-rate: '" + request.name +
                         "' has times of its own; leave the option out");
    }
    // A playlist without a duration cannot seek in its files.
    mListed = result < 0 || mInput.demuxer != "concat" || context->duration != AV_NOPTS_VALUE;
    return result;
}

void Demuxer::follow(int video, int audio) {
    if ((mFormat->iformat->flags & AVFMT_TS_DISCONT) == 0) {
        return;
    }
    const AVStream& timed = stream(video);
    const int64_t wrapUs =
        timed.pts_wrap_bits < 63
            ? av_rescale_q(int64_t{1} << timed.pts_wrap_bits, timed.time_base, kMicroseconds)
            : 0;
    const std::lock_guard<std::mutex> guard(mLock);
    mFollowed[0] = video;
    mFollowed[1] = audio;
    mMapper.emplace(wrapUs);
    for (const int taken : {video, audio}) {
        if (taken >= 0) {
            mSuccession.play(taken);
            noteSuccession(taken, taken, 0);
        }
    }
}

std::vector<Demuxer::Succession> Demuxer::successions() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mSuccessions;
}

const AVCodecParameters& Demuxer::parameters(int stream) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return *mParameters.at(stream);
}

/// The followed stream from which one of another number may take over; -1: there is none.
int Demuxer::relativeOf(int index) const {
    const auto kind = stream(index).codecpar->codec_type;
    for (const int followed : mFollowed) {
        if (followed < 0 || stream(followed).codecpar->codec_type != kind) {
            continue;
        }
        AVProgram* own = av_find_program_from_stream(mFormat.get(), nullptr, followed);
        AVProgram* program = nullptr;
        do {
            program = av_find_program_from_stream(mFormat.get(), program, index);
            if (program == own) {
                return followed;
            }
        } while (program != nullptr);
    }
    return -1;
}

int Demuxer::takenFor(int stream) const {
    const auto found = mTakenFor.find(stream);
    return found == mTakenFor.end() ? stream : found->second;
}

/// The packets of a followed stream are from now on those of another one, or again its own.
void Demuxer::noteSuccession(int taken, int as, int64_t atUs) {
    const auto [acting, first] = mActing.try_emplace(taken, as);
    if (!first && std::exchange(acting->second, as) == as) {
        return;
    }
    ParametersPtr& parameters = mParameters[as];
    if (!parameters) {
        // Once: a decoder may be reading them on another thread.
        parameters.reset(avcodec_parameters_alloc());
        avcodec_parameters_copy(parameters.get(), stream(as).codecpar);
    }
    if (as != taken || !first) {
        mSuccessions.push_back({taken, as, atUs});
    }
}

std::vector<Splice> Demuxer::splices() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mMapper ? mMapper->splices() : std::vector<Splice>();
}

void Demuxer::keep(int stream, bool timesOnly) {
    const std::lock_guard<std::mutex> guard(mLock);
    mQueues[stream].timesOnly = timesOnly;
}

void Demuxer::keepOnly(int kept, bool timesOnly) {
    for (unsigned i = 0; i < mFormat->nb_streams; ++i) {
        // Following streams needs every packet of them.
        if (static_cast<int>(i) != kept && mFollowed[0] < 0) {
            mFormat->streams[i]->discard = AVDISCARD_ALL;
        }
    }
    keep(kept, timesOnly);
}

int64_t Demuxer::reachedUs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mReachedUs;
}

int Demuxer::streams() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mStreams;
}

ReadStatus Demuxer::read(int stream, AVPacket* packet) {
    for (;;) {
        if (const auto status = take(stream, packet)) {
            return *status;
        }
        if (isInterrupted(&mInterrupted) != 0) {
            return ReadStatus::BrokenOff;
        }
        // Holds only the lock for reading, so that the other reader can take from its queue
        // meanwhile.
        const std::lock_guard<std::mutex> guard(mReading);
        if (nothingCameFor(stream)) {
            readOne();
        }
    }
}

/// @return nothing when more has to be read
std::optional<ReadStatus> Demuxer::take(int stream, AVPacket* packet) {
    const std::lock_guard<std::mutex> guard(mLock);
    Queue& queue = mQueues[stream];
    if (queue.packets.empty()) {
        return othersAreFull(stream) ? std::optional(ReadStatus::End) : mEnded;
    }
    av_packet_unref(packet);
    queue.bytes -= costOf(*queue.packets.front());
    av_packet_move_ref(packet, queue.packets.front().get());
    queue.packets.pop_front();
    return ReadStatus::Ready;
}

/// Checks again under the lock for reading: the other reader may have brought a packet meanwhile.
bool Demuxer::nothingCameFor(int stream) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mQueues.at(stream).packets.empty() && !mEnded;
}

bool Demuxer::othersAreFull(int stream) const {
    return std::any_of(mQueues.begin(), mQueues.end(), [&](const auto& entry) {
        return entry.first != stream && entry.second.bytes > mMostQueuedBytes;
    });
}

/// Reads the next packet of any stream.
void Demuxer::readOne() {
    PacketPtr packet(av_packet_alloc());
    const int result = av_read_frame(mFormat.get(), packet.get());
    const std::lock_guard<std::mutex> guard(mLock);
    mStreams = static_cast<int>(mFormat->nb_streams);
    if (result < 0) {
        if (mMapper) {
            std::vector<PacketPtr> released;
            mSuccession.end(&released);
            pushMapped(std::move(released));
            mMapper->end();
            takeMapped();
        }
        const bool silent = mPipe && mPipe->fellSilent();
        const bool whole = result == AVERROR_EOF && !silent && !endsEarly();
        mEnded = whole ? ReadStatus::End : ReadStatus::BrokenOff;
        return;
    }
    mapTimes(std::move(packet));
}

/// Packets of a container whose times may jump go through the mapper, which may hold them back.
void Demuxer::mapTimes(PacketPtr packet) {
    const int index = packet->stream_index;
    const int64_t timestamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    const bool followed = mMapper && mSuccession.playedBy(index) >= 0;
    const int relative = mMapper && !followed ? relativeOf(index) : -1;
    if (!followed && (relative < 0 || timestamp == AV_NOPTS_VALUE)) {
        place(std::move(packet));
        return;
    }
    const int64_t us =
        timestamp == AV_NOPTS_VALUE ? INT64_MIN : toMediaUs(timestamp, stream(index).time_base);
    std::vector<PacketPtr> released;
    mSuccession.take(std::move(packet), relative, us, &released);
    pushMapped(std::move(released));
}

void Demuxer::pushMapped(std::vector<PacketPtr> packets) {
    for (auto& packet : packets) {
        const int index = packet->stream_index;
        const int taken = mSuccession.playedBy(index);
        const AVRational timeBase = stream(taken).time_base;
        if (index != taken) {
            mTakenFor[index] = taken;
            av_packet_rescale_ts(packet.get(), stream(index).time_base, timeBase);
        }
        const int64_t timestamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        TimelineMapper::Packet time{taken == mFollowed[0] ? 0 : 1, std::nullopt, 0, 0};
        if (timestamp != AV_NOPTS_VALUE) {
            time.us = toMediaUs(timestamp, timeBase);
            time.shownUs =
                packet->pts != AV_NOPTS_VALUE ? toMediaUs(packet->pts, timeBase) : *time.us;
        }
        time.durationUs = av_rescale_q(packet->duration, timeBase, kMicroseconds);
        mUnmapped.push_back(std::move(packet));
        mMapper->push(time);
        takeMapped();
    }
}

void Demuxer::takeMapped() {
    while (const auto shiftUs = mMapper->pop()) {
        PacketPtr packet = std::move(mUnmapped.front());
        mUnmapped.pop_front();
        const int index = packet->stream_index;
        const AVRational timeBase = stream(takenFor(index)).time_base;
        const int64_t shift = av_rescale_q(*shiftUs, kMicroseconds, timeBase);
        packet->pts += packet->pts != AV_NOPTS_VALUE ? shift : 0;
        packet->dts += packet->dts != AV_NOPTS_VALUE ? shift : 0;
        noteSuccession(
            takenFor(index), index,
            packet->pts != AV_NOPTS_VALUE ? toMediaUs(packet->pts, timeBase) : mReachedUs);
        place(std::move(packet));
    }
}

/// Puts a packet where it is wanted.
void Demuxer::place(PacketPtr packet) {
    const int index = takenFor(packet->stream_index);
    if (packet->pts != AV_NOPTS_VALUE) {
        const AVRational timeBase = stream(index).time_base;
        const int64_t fromUs = toMediaUs(packet->pts, timeBase);
        const int64_t toUs = toMediaUs(packet->pts + packet->duration, timeBase);
        Reach& reach = mReach.try_emplace(index, Reach{fromUs, toUs}).first->second;
        reach.toUs = std::max(reach.toUs, toUs);
        mReachedUs = std::max(mReachedUs, toUs);
    }
    const auto wanted = mQueues.find(index);
    if (wanted == mQueues.end()) {
        return;
    }
    Queue& queue = wanted->second;
    if (queue.timesOnly) {
        dropData(packet.get());
    }
    queue.bytes += costOf(*packet);
    queue.packets.push_back(std::move(packet));
}

bool Demuxer::endsEarly() const {
    const bool guessed = mFormat->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
    // Some containers count the duration from 0, others from the file's start.
    const int64_t endUs = mReachedUs + std::max<int64_t>(mStartUs, 0);
    const bool spliced = mMapper && !mMapper->splices().empty();
    const bool early = !guessed && !spliced && mFormat->duration > 0 &&
                       endUs + kBreakOffToleranceUs < mFormat->duration;
    return early || indexGoesOn();
}

/// The index tells of data after the file's end.
bool Demuxer::indexGoesOn() const {
    const int64_t bytes = mFormat->pb != nullptr ? avio_size(mFormat->pb) : 0;
    for (unsigned i = 0; bytes > 0 && i < mFormat->nb_streams; ++i) {
        AVStream* stream = mFormat->streams[i];
        const AVIndexEntry* last =
            avformat_index_get_entry(stream, avformat_index_get_entries_count(stream) - 1);
        if (last != nullptr && last->pos + last->size > bytes) {
            return true;
        }
    }
    return false;
}

Demuxer::Successor Demuxer::successorOf(int index) const {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto own = mReach.find(index);
    for (const auto& [other, reach] : mReach) {
        if (own != mReach.end() && other != index &&
            stream(other).codecpar->codec_type == stream(index).codecpar->codec_type &&
            reach.fromUs + kStreamOverlapUs >= own->second.toUs) {
            return {other, reach.fromUs};
        }
    }
    return {};
}

bool Demuxer::seek(int index, int64_t mediaUs) {
    if (!mCanSeek) {
        return false;
    }
    const std::lock_guard<std::mutex> reading(mReading);
    if (!hasTimes()) {
        return rewind();
    }
    if (!splices().empty()) {
        return seekByReading(index, mediaUs);
    }
    if (!seekRaw(index, mediaUs)) {
        return false;
    }
    if (mFollowed[0] < 0) {
        return true;
    }
    // Past a splice that no reader has met yet, the container's times are wrong.
    const auto landedUs = nextUs(index);
    const bool near = landedUs && std::abs(*landedUs - mediaUs) < kAstrayUs;
    return near || seekByReading(index, mediaUs);
}

bool Demuxer::seekRaw(int index, int64_t mediaUs) {
    const int64_t target = av_rescale_q(mediaUs + mStartUs, kMicroseconds, stream(index).time_base);
    if (av_seek_frame(mFormat.get(), index, target, AVSEEK_FLAG_BACKWARD) < 0) {
        return false;
    }
    forget();
    return true;
}

void Demuxer::forget() {
    const std::lock_guard<std::mutex> guard(mLock);
    for (auto& [number, queue] : mQueues) {
        queue.packets.clear();
        queue.bytes = 0;
    }
    mUnmapped.clear();
    if (mMapper) {
        mMapper->restart();
        mSuccession.restart();
        mSuccessions.clear();
        mActing.clear();
    }
    mEnded.reset();
}

bool Demuxer::rewind() {
    if (av_seek_frame(mFormat.get(), -1, 0, AVSEEK_FLAG_BYTE) < 0) {
        return false;
    }
    forget();
    return true;
}

/// Reads from the beginning up to the last key packet before the target: slow in a large file, but
/// it meets every splice. A target beyond the end leads to the end.
bool Demuxer::seekByReading(int index, int64_t mediaUs) {
    if (!rewind()) {
        return false;
    }
    while (!dropUpTo(index, mediaUs) && isInterrupted(&mInterrupted) == 0) {
        readOne();
    }
    return true;
}

/// Drops what is not needed for a target.
/// @return whether the target or the end has been reached
bool Demuxer::dropUpTo(int index, int64_t mediaUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    auto& packets = mQueues[index].packets;
    const AVRational timeBase = stream(index).time_base;
    size_t start = 0;
    bool reached = mEnded.has_value();
    for (size_t i = 0; i < packets.size(); ++i) {
        const bool timed = packets[i]->pts != AV_NOPTS_VALUE;
        const bool later = timed && toMediaUs(packets[i]->pts, timeBase) > mediaUs;
        const bool key = (packets[i]->flags & AV_PKT_FLAG_KEY) != 0;
        start = key && !later ? i : start;
        reached = reached || (key && later);
    }
    for (; start > 0; --start) {
        mQueues[index].bytes -= costOf(*packets.front());
        packets.pop_front();
    }
    return reached;
}

/// Media time of a stream's next packet; empty: there is none.
std::optional<int64_t> Demuxer::nextUs(int index) {
    while (nothingCameFor(index) && isInterrupted(&mInterrupted) == 0) {
        readOne();
    }
    const std::lock_guard<std::mutex> guard(mLock);
    const auto& packets = mQueues.at(index).packets;
    if (packets.empty() || packets.front()->pts == AV_NOPTS_VALUE) {
        return std::nullopt;
    }
    return toMediaUs(packets.front()->pts, stream(index).time_base);
}

}  // namespace korvane::player

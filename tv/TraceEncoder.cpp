// SPDX-License-Identifier: Apache-2.0
#include "tv/TraceEncoder.h"

#include <protozero/pbf_builder.hpp>

#include <algorithm>
#include <utility>

namespace korvane::tv {
namespace {

// Numbers of the fields in Perfetto's published format.

enum class TraceField : protozero::pbf_tag_type { Packet = 1 };

enum class PacketField : protozero::pbf_tag_type {
    ClockSnapshot = 6,
    Timestamp = 8,
    SequenceId = 10,
    TrackEvent = 11,
    InternedData = 12,
    SequenceFlags = 13,
    AndroidLog = 39,
    TimestampClock = 58,
    TrackDescriptor = 60,
    FrameTimelineEvent = 76,
    FirstOnSequence = 87
};

enum class SnapshotField : protozero::pbf_tag_type { Clock = 1, PrimaryClock = 2 };
enum class ClockField : protozero::pbf_tag_type { Id = 1, Timestamp = 2 };

enum class InternedField : protozero::pbf_tag_type { EventName = 2 };
enum class EventNameField : protozero::pbf_tag_type { Id = 1, Name = 2 };

enum class TrackField : protozero::pbf_tag_type {
    Uuid = 1,
    Name = 2,
    Process = 3,
    Thread = 4,
    Parent = 5,
    Counter = 8
};
enum class ProcessField : protozero::pbf_tag_type { Pid = 1, Name = 6 };
enum class ThreadField : protozero::pbf_tag_type { Pid = 1, Tid = 2, Name = 5 };

enum class EventField : protozero::pbf_tag_type {
    Argument = 4,
    Type = 9,
    NameId = 10,
    Track = 11,
    Name = 23,
    CounterValue = 30,
    Flow = 47,
    LastOfFlow = 48
};
enum class ArgumentField : protozero::pbf_tag_type { Int = 4, Text = 6, Name = 10 };

enum class TimelineField : protozero::pbf_tag_type {
    ExpectedDisplayFrame = 1,
    ActualDisplayFrame = 2,
    ExpectedContentFrame = 3,
    ActualContentFrame = 4,
    End = 5
};
enum class ContentFrameField : protozero::pbf_tag_type {
    Cookie = 1,
    Token = 2,
    DisplayToken = 3,
    Pid = 4,
    Layer = 5,
    Present = 6,
    OnTime = 7,
    GpuComposition = 8,
    Jank = 9,
    Prediction = 10,
    IsBuffer = 11
};
enum class DisplayFrameField : protozero::pbf_tag_type {
    Cookie = 1,
    Token = 2,
    Pid = 3,
    Present = 4,
    OnTime = 5,
    GpuComposition = 6,
    Jank = 7,
    Prediction = 8
};
enum class FrameEndField : protozero::pbf_tag_type { Cookie = 1 };

enum class PacketLogField : protozero::pbf_tag_type { Event = 1 };
enum class LogEventField : protozero::pbf_tag_type {
    Pid = 2,
    Tid = 3,
    Timestamp = 5,
    Tag = 6,
    Priority = 7,
    Message = 8
};

template <typename Field>
using Message = protozero::pbf_builder<Field>;

constexpr uint32_t kMonotonicClock = 3;
constexpr uint32_t kBootClock = 6;
constexpr uint32_t kRealClock = 1;
constexpr uint32_t kSequence = 1;
/// The sequence's names begin anew; an event needs the names before it.
constexpr uint32_t kFlagNewNames = 1;
constexpr uint32_t kFlagNeedsNames = 2;
constexpr int32_t kPredictionValid = 1;
constexpr int32_t kPredictionExpired = 2;

constexpr size_t kMostNames = 512;
constexpr size_t kMostDescribed = 4096;
/// The display, as a process of its own; above any number that Linux assigns.
constexpr int32_t kDisplayPid = 1 << 30;

enum class EventType : int32_t { Begin = 1, End = 2, Instant = 3, Counter = 4 };

/// Kinds of tracks: two tracks of one name but of different kinds are different ones.
enum TrackKind : uint64_t { kProcess, kThread, kGroup, kSlices, kCounter, kAsync };

/// One packet. Its fields must end before it does.
struct Packet {
    explicit Packet(std::string* out) : trace(*out), packet(trace, TraceField::Packet) {
        packet.add_uint32(PacketField::SequenceId, kSequence);
    }
    Packet(std::string* out, int64_t timeNs) : Packet(out) {
        packet.add_uint64(PacketField::Timestamp, static_cast<uint64_t>(timeNs));
        packet.add_uint32(PacketField::TimestampClock, kMonotonicClock);
    }

    Message<TraceField> trace;
    Message<PacketField> packet;
};

/// A packet with an event of a track.
struct EventPacket {
    EventPacket(std::string* out, EventType type, uint64_t track, int64_t timeNs)
        : packet(out, timeNs), event(packet.packet, PacketField::TrackEvent) {
        event.add_enum(EventField::Type, static_cast<int32_t>(type));
        event.add_uint64(EventField::Track, track);
    }
    void add(const std::string& name, const TraceDetails& details) {
        event.add_string(EventField::Name, name);
        if (details.frameNo >= 0) {
            event.add_fixed64(details.lastOfFrame ? EventField::LastOfFlow : EventField::Flow,
                              static_cast<uint64_t>(details.frameNo) + 1);
        }
        for (const TraceArgument& argument : details.arguments) {
            Message<ArgumentField> message(event, EventField::Argument);
            message.add_string(ArgumentField::Name, argument.name);
            if (argument.isText) {
                message.add_string(ArgumentField::Text, argument.text);
            } else {
                message.add_int64(ArgumentField::Int, argument.number);
            }
        }
    }

    Packet packet;
    Message<EventField> event;
};

/// A packet that describes a track.
struct TrackPacket {
    TrackPacket(std::string* out, uint64_t uuid)
        : packet(out), track(packet.packet, PacketField::TrackDescriptor) {
        track.add_uint64(TrackField::Uuid, uuid);
    }

    Packet packet;
    Message<TrackField> track;
};

/// A track's number, the same in every run: FNV-1a.
uint64_t uuidOf(uint64_t kind, const std::string& name) {
    uint64_t hash = 0xcbf29ce484222325 ^ kind;
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    }
    return hash;
}

/// Fields that content frames and display frames share, under other numbers.
template <typename Field>
void addFrame(Message<Field>* message, const TraceTimeline& frame, int64_t cookie, int32_t pid,
              bool actual) {
    message->add_int64(Field::Cookie, cookie);
    message->add_int64(Field::Token, frame.token);
    message->add_int32(Field::Pid, pid);
    if (actual) {
        message->add_enum(Field::Present, static_cast<int32_t>(frame.present));
        message->add_bool(Field::OnTime, (frame.jank & (kJankHandedInLate | kJankQueuedLate)) == 0);
        message->add_bool(Field::GpuComposition, false);
        message->add_int32(Field::Jank, frame.jank);
        message->add_enum(Field::Prediction,
                          frame.expectedEndNs > 0 ? kPredictionValid : kPredictionExpired);
    }
}

}  // namespace

TraceEncoder::TraceEncoder(std::string* out, const TraceClocks& clocks, TraceProcess process)
    : mOut(*out),
      mProcess(std::move(process)),
      mRealMinusMonotonicNs(clocks.realNs - clocks.monotonicNs) {
    Packet packet(out);
    packet.packet.add_uint32(PacketField::SequenceFlags, kFlagNewNames);
    packet.packet.add_bool(PacketField::FirstOnSequence, true);
    Message<SnapshotField> snapshot(packet.packet, PacketField::ClockSnapshot);
    const std::pair<uint32_t, int64_t> all[] = {{kMonotonicClock, clocks.monotonicNs},
                                                {kBootClock, clocks.bootNs},
                                                {kRealClock, clocks.realNs}};
    for (const auto& [id, timeNs] : all) {
        Message<ClockField> clock(snapshot, SnapshotField::Clock);
        clock.add_uint32(ClockField::Id, id);
        clock.add_uint64(ClockField::Timestamp, static_cast<uint64_t>(timeNs));
    }
    snapshot.add_enum(SnapshotField::PrimaryClock, kMonotonicClock);
}

// ---- tracks ----

/// @return true before a track's first event, and rarely again
bool TraceEncoder::isNew(uint64_t uuid) {
    if (mDescribed.size() >= kMostDescribed) {
        mDescribed.clear();
    }
    return mDescribed.insert(uuid).second;
}

uint64_t TraceEncoder::processTrack(const TraceProcess& process) {
    const uint64_t uuid = uuidOf(kProcess, process.name);
    if (isNew(uuid)) {
        TrackPacket packet(&mOut, uuid);
        Message<ProcessField> message(packet.track, TrackField::Process);
        message.add_int32(ProcessField::Pid, process.pid);
        message.add_string(ProcessField::Name, process.name);
    }
    return uuid;
}

void TraceEncoder::nameThread(int32_t thread, const std::string& name) {
    if (mThreads.size() >= kMostDescribed) {
        mThreads.clear();
    }
    mThreads.insert(thread);
    processTrack(mProcess);
    TrackPacket packet(&mOut, uuidOf(kThread, std::to_string(thread)));
    Message<ThreadField> message(packet.track, TrackField::Thread);
    message.add_int32(ThreadField::Pid, mProcess.pid);
    message.add_int32(ThreadField::Tid, thread);
    message.add_string(ThreadField::Name, name);
}

/// The track of a name; the part before a slash is its group.
uint64_t TraceEncoder::namedTrack(uint64_t kind, const std::string& name) {
    const uint64_t uuid = uuidOf(kind, name);
    if (isNew(uuid)) {
        const size_t slash = name.find('/');
        const uint64_t parent = slash == std::string::npos
                                    ? processTrack(mProcess)
                                    : namedTrack(kGroup, name.substr(0, slash));
        TrackPacket packet(&mOut, uuid);
        packet.track.add_uint64(TrackField::Parent, parent);
        packet.track.add_string(TrackField::Name,
                                slash == std::string::npos ? name : name.substr(slash + 1));
        if (kind == kCounter) {
            packet.track.add_message(TrackField::Counter, std::string());
        }
    }
    return uuid;
}

// ---- events ----

/// @return a name's number; 0 when there are too many names
uint64_t TraceEncoder::sectionName(const std::string& name, bool* isNew) {
    const auto known = mNames.find(name);
    *isNew = known == mNames.end() && mNames.size() < kMostNames;
    if (*isNew) {
        return mNames.emplace(name, mNames.size() + 1).first->second;
    }
    return known == mNames.end() ? 0 : known->second;
}

void TraceEncoder::beginSection(int32_t thread, const std::string& name, int64_t timeNs) {
    bool isNewName = false;
    const uint64_t number = sectionName(name, &isNewName);
    Packet packet(&mOut, timeNs);
    packet.packet.add_uint32(PacketField::SequenceFlags, kFlagNeedsNames);
    if (isNewName) {
        Message<InternedField> interned(packet.packet, PacketField::InternedData);
        Message<EventNameField> entry(interned, InternedField::EventName);
        entry.add_uint64(EventNameField::Id, number);
        entry.add_string(EventNameField::Name, name);
    }
    Message<EventField> event(packet.packet, PacketField::TrackEvent);
    event.add_enum(EventField::Type, static_cast<int32_t>(EventType::Begin));
    event.add_uint64(EventField::Track, uuidOf(kThread, std::to_string(thread)));
    if (number > 0) {
        event.add_uint64(EventField::NameId, number);
    } else {
        event.add_string(EventField::Name, name);
    }
}

void TraceEncoder::endSection(int32_t thread, int64_t timeNs) {
    EventPacket(&mOut, EventType::End, uuidOf(kThread, std::to_string(thread)), timeNs);
}

/// Each cookie has a track: asynchronous sections of one name may overlap.
uint64_t TraceEncoder::asyncTrack(const std::string& name, int64_t cookie) {
    return namedTrack(kAsync + 1 + static_cast<uint64_t>(cookie), name);
}

void TraceEncoder::beginAsync(const std::string& name, int64_t cookie, int64_t timeNs) {
    EventPacket(&mOut, EventType::Begin, asyncTrack(name, cookie), timeNs).add(name, {});
}

void TraceEncoder::endAsync(const std::string& name, int64_t cookie, int64_t timeNs) {
    EventPacket(&mOut, EventType::End, asyncTrack(name, cookie), timeNs);
}

void TraceEncoder::state(const std::string& track, const std::string& name, int64_t timeNs,
                         const TraceDetails& details) {
    const uint64_t uuid = namedTrack(kSlices, track);
    State& now = mStates[uuid];
    now.sinceNs = std::max(now.sinceNs, timeNs);
    if (now.open) {
        EventPacket(&mOut, EventType::End, uuid, now.sinceNs);
    }
    now.open = !name.empty();
    if (now.open) {
        EventPacket(&mOut, EventType::Begin, uuid, now.sinceNs).add(name, details);
    }
}

void TraceEncoder::slice(const std::string& track, const std::string& name, int64_t startNs,
                         int64_t endNs, const TraceDetails& details) {
    const uint64_t uuid = namedTrack(kSlices, track);
    EventPacket(&mOut, EventType::Begin, uuid, startNs).add(name, details);
    EventPacket(&mOut, EventType::End, uuid, endNs);
}

void TraceEncoder::instant(const std::string& track, const std::string& name, int64_t timeNs,
                           const TraceDetails& details) {
    EventPacket(&mOut, EventType::Instant, namedTrack(kSlices, track), timeNs).add(name, details);
}

void TraceEncoder::counter(const std::string& name, int64_t value, int64_t timeNs) {
    EventPacket(&mOut, EventType::Counter, namedTrack(kCounter, name), timeNs)
        .event.add_int64(EventField::CounterValue, value);
}

// ---- frame timelines ----

void TraceEncoder::timeline(const TraceTimeline& frame) {
    processTrack(frame.ofDisplay ? TraceProcess{kDisplayPid, "TV display"} : mProcess);
    if (frame.expectedEndNs > 0) {
        frameSlice(frame, false);
    }
    if (frame.actualEndNs > 0) {
        frameSlice(frame, true);
    }
}

void TraceEncoder::frameSlice(const TraceTimeline& frame, bool actual) {
    ++mCookie;
    {
        Packet packet(&mOut, actual ? frame.actualNs : frame.expectedNs);
        Message<TimelineField> event(packet.packet, PacketField::FrameTimelineEvent);
        if (frame.ofDisplay) {
            Message<DisplayFrameField> message(event, actual ? TimelineField::ActualDisplayFrame
                                                             : TimelineField::ExpectedDisplayFrame);
            addFrame(&message, frame, mCookie, kDisplayPid, actual);
        } else {
            Message<ContentFrameField> message(event, actual ? TimelineField::ActualContentFrame
                                                             : TimelineField::ExpectedContentFrame);
            addFrame(&message, frame, mCookie, mProcess.pid, actual);
            if (frame.displayToken >= 0) {
                message.add_int64(ContentFrameField::DisplayToken, frame.displayToken);
            }
            message.add_string(ContentFrameField::Layer, frame.layer);
            if (actual) {
                message.add_bool(ContentFrameField::IsBuffer, true);
            }
        }
    }
    Packet packet(&mOut, actual ? frame.actualEndNs : frame.expectedEndNs);
    Message<TimelineField> event(packet.packet, PacketField::FrameTimelineEvent);
    Message<FrameEndField> message(event, TimelineField::End);
    message.add_int64(FrameEndField::Cookie, mCookie);
}

// ---- log ----

void TraceEncoder::log(int32_t thread, const TraceLogLine& line, int64_t timeNs) {
    Packet packet(&mOut, timeNs);
    Message<PacketLogField> log(packet.packet, PacketField::AndroidLog);
    Message<LogEventField> event(log, PacketLogField::Event);
    event.add_int32(LogEventField::Pid, mProcess.pid);
    event.add_int32(LogEventField::Tid, thread);
    event.add_uint64(LogEventField::Timestamp,
                     static_cast<uint64_t>(timeNs + mRealMinusMonotonicNs));
    event.add_string(LogEventField::Tag, line.tag);
    event.add_enum(LogEventField::Priority, line.priority);
    const size_t end = line.text.find_last_not_of('\n');
    event.add_string(LogEventField::Message, line.text.substr(0, end + 1));
}

}  // namespace korvane::tv

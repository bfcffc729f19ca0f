// SPDX-License-Identifier: Apache-2.0
// VideoSyncWraper forwards every call to the service unchanged, logs it and converts the status.
// The test has its own MediaSync class, as any process may, and so records the calls among the log
// lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "mediasync/VideoSyncWraper.h"
#include "tests/support/LogCapture.h"

namespace {

using korvane::test::Lines;
using korvane::test::LogCapture;
using korvane::test::setLogMask;
using testing::ElementsAreArray;

LogCapture* gCapture = nullptr;
int gStatus = 0;
int gClients = 0;

/// Records a call of the service and returns the status that the test chose.
template <typename... Arguments>
int called(const char* operation, Arguments... arguments) {
    std::ostringstream text;
    text << "call " << operation;
    ((text << ' ' << arguments), ...);
    gCapture->add(text.str());
    return gStatus;
}

/// Like a service: writes an output on success only.
template <typename Value>
int answered(int status, Value* out, Value value) {
    if (status == 0) {
        *out = value;
    }
    return status;
}

}  // namespace

/// An operation of the service with inputs only, and one that writes to `out`.
#define TAKES(name, parameters, ...)         \
    int MediaSync::name parameters {         \
        return called(#name, ##__VA_ARGS__); \
    }
#define ANSWERS(name, parameters, value, ...)                      \
    int MediaSync::name parameters {                               \
        return answered(called(#name, ##__VA_ARGS__), out, value); \
    }

MediaSync::MediaSync() {
    ++gClients;
}
MediaSync::~MediaSync() {
    --gClients;
}
TAKES(setPlayerInsNumber, (int number), number)
ANSWERS(allocInstance, (int demuxId, int pcrPid, int* out), 8, demuxId, pcrPid)
TAKES(bindInstance, (unsigned int id, sync_stream_type type), id, type)
TAKES(setSyncMode, (sync_mode mode), mode)
ANSWERS(getSyncMode, (sync_mode * out), MEDIA_SYNC_AMASTER)
TAKES(setPause, (bool pause), pause)
ANSWERS(getPause, (bool* out), true)
TAKES(updateAnchor, (long media, long real, long max, bool video), media, real, max, video)
ANSWERS(getMediaTime, (long realUs, long* out, bool past), 5'000'000'000L, realUs, past)
ANSWERS(getRealTimeFor, (long mediaUs, long* out), 6'000'000'000L, mediaUs)
ANSWERS(getRealTimeForNextVsync, (long* out), 7'000'000'000L)
TAKES(reset, ())
ANSWERS(getTrackMediaTime, (long* out), 1L)
ANSWERS(getStartingTimeMedia, (long* out), 2L)
TAKES(setUpdateTimeThreshold, (long threshold), threshold)
ANSWERS(getUpdateTimeThreshold, (long* out), 3L)
TAKES(setParameter, (mediasync_parameter type, void* arg), type, *static_cast<int*>(arg))
int MediaSync::getParameter(mediasync_parameter type, void* arg) {
    return answered(called("getParameter", type), static_cast<int*>(arg), 4);
}
TAKES(queueVideoFrame, (long vpts, int size, int duration, mediasync_time_unit unit), vpts, size,
      duration, unit)
ANSWERS(VideoProcess, (long vpts, long last, mediasync_time_unit unit, mediasync_video_policy* out),
        (mediasync_video_policy{MEDIASYNC_VIDEO_HOLD, 0, 9, 0}), vpts, last, unit)

namespace {

enum class Trace { None, Before, After };

/// The operations' outputs, preset so that an unwritten one is recognised.
struct Outputs {
    sync_mode mode = static_cast<sync_mode>(255);
    long time = -7;
    bool flag = false;
    int number = -7;
    mediasync_video_policy policy{};
};

struct Operation {
    std::string name;
    std::function<bool(VideoSyncWraper&, Outputs&)> run;
    std::string call;  ///< as the service gets it
    Trace when = Trace::None;
    int bit = 0;
    std::string trace = {};
    std::string traceOnFailure = {};  ///< if an output is part of it
};

int gParameter = 41;

const std::vector<Operation> kOperations = {
    {"setPlayerInsNumber", [](auto& sync, auto&) { return sync.setPlayerInsNumber(255); },
     "setPlayerInsNumber 255", Trace::After, 1, "I [setPlayerInsNumber] PlayerInsNumber:255\n"},
    {"bindInstance",
     [](auto& sync, auto&) { return sync.bindInstance(4'294'967'295U, MEDIA_AUDIO); },
     "bindInstance 4294967295 1", Trace::After, 1, "I [bindInstance] SyncInsId:-1, streamtype:1\n"},
    {"setSyncMode", [](auto& sync, auto&) { return sync.setSyncMode(MEDIA_SYNC_PCRMASTER); },
     "setSyncMode 2", Trace::Before, 1, "I [setSyncMode]mode:2 \n"},
    {"getSyncMode", [](auto& sync, auto& out) { return sync.getSyncMode(&out.mode); },
     "getSyncMode", Trace::After, 4, "D [getSyncMode]mode:1 \n", "D [getSyncMode]mode:255 \n"},
    {"setPause", [](auto& sync, auto&) { return sync.setPause(true); }, "setPause 1"},
    {"getPause", [](auto& sync, auto& out) { return sync.getPause(&out.flag); }, "getPause"},
    {"updateAnchor", [](auto& sync, auto&) { return sync.updateAnchor(1L << 40, -2, 3); },
     "updateAnchor 1099511627776 -2 3 1", Trace::Before, 2,
     "D [updateAnchor]anchorTimeMediaUs:1099511627776, anchorTimeRealUs:-2, maxTimeMediaUs:3 \n"},
    {"getMediaTime", [](auto& sync, auto& out) { return sync.getMediaTime(9, &out.time, true); },
     "getMediaTime 9 1", Trace::After, 4,
     "D [getMediaTime]realUs:9, outMediaUs:5000000000, allowPastMaxTime:1 \n",
     "D [getMediaTime]realUs:9, outMediaUs:-7, allowPastMaxTime:1 \n"},
    {"getRealTimeFor", [](auto& sync, auto& out) { return sync.getRealTimeFor(-9, &out.time); },
     "getRealTimeFor -9", Trace::After, 4,
     "D [getRealTimeFor]targetMediaUs:-9, outRealUs:6000000000 \n",
     "D [getRealTimeFor]targetMediaUs:-9, outRealUs:-7 \n"},
    {"getRealTimeForNextVsync",
     [](auto& sync, auto& out) { return sync.getRealTimeForNextVsync(&out.time); },
     "getRealTimeForNextVsync", Trace::After, 4,
     "D [getRealTimeForNextVsync]outRealUs:7000000000 \n",
     "D [getRealTimeForNextVsync]outRealUs:-7 \n"},
    {"reset", [](auto& sync, auto&) { return sync.reset(); }, "reset", Trace::Before, 1,
     "I [reset] \n"},
    {"getSyncId", [](auto& sync, auto& out) { return sync.getSyncId(&out.number); },
     "allocInstance 0 0", Trace::Before, 1, "I [getSyncId] \n"},
    {"getTrackMediaTime", [](auto& sync, auto& out) { return sync.getTrackMediaTime(&out.time); },
     "getTrackMediaTime"},
    {"getStartingTimeMedia",
     [](auto& sync, auto& out) { return sync.getStartingTimeMedia(&out.time); },
     "getStartingTimeMedia"},
    {"setUpdateTimeThreshold", [](auto& sync, auto&) { return sync.setUpdateTimeThreshold(77); },
     "setUpdateTimeThreshold 77"},
    {"getUpdateTimeThreshold",
     [](auto& sync, auto& out) { return sync.getUpdateTimeThreshold(&out.time); },
     "getUpdateTimeThreshold"},
    {"setParameter",
     [](auto& sync, auto&) { return sync.setParameter(MEDIASYNC_KEY_PARAM9, &gParameter); },
     "setParameter 9 41", Trace::Before, 1, "I [setParameter] \n"},
    {"getParameter",
     [](auto& sync, auto& out) { return sync.getParameter(MEDIASYNC_KEY_PARAM7, &out.number); },
     "getParameter 7", Trace::Before, 1, "I [getParameter] \n"},
    {"queueVideoFrame",
     [](auto& sync, auto&) { return sync.queueVideoFrame(123, 4, 5, MEDIASYNC_UNIT_PTS); },
     "queueVideoFrame 123 4 5 2"},
    {"VideoProcess",
     [](auto& sync, auto& out) {
         return sync.VideoProcess(30, 20, MEDIASYNC_UNIT_US, &out.policy);
     },
     "VideoProcess 30 20 1"},
};

/// Calls and log lines expected of an operation, in order.
Lines expected(const Operation& operation, int mask, int status) {
    Lines events = {"call " + operation.call};
    const bool ownText = status != 0 && !operation.traceOnFailure.empty();
    const std::string& trace = ownText ? operation.traceOnFailure : operation.trace;
    if (operation.when != Trace::None && (mask & operation.bit) != 0) {
        events.insert(operation.when == Trace::Before ? events.begin() : events.end(), trace);
    }
    if (status != 0) {
        events.push_back("E [" + operation.name + "]err:" + std::to_string(status) + " \n");
    }
    return events;
}

class Forwarding : public testing::Test {
protected:
    Forwarding() { gCapture = &mLog; }
    ~Forwarding() override {
        gStatus = 0;
        korvane::tv::clearProperties();
    }
    LogCapture mLog{"VideoSyncWraper"};
};

TEST_F(Forwarding, PassesEachCallOnAndLogsItUnderItsOwnBit) {
    ASSERT_EQ(kOperations.size(), 20U);
    for (const int mask : {0, 1, 2, 4, 0x10, 0x17}) {
        setLogMask(mask);
        VideoSyncWraper sync;
        mLog.take();
        for (const int status : {0, -22, 7}) {
            gStatus = status;
            for (const Operation& operation : kOperations) {
                SCOPED_TRACE(operation.name + " mask " + std::to_string(mask) + " status " +
                             std::to_string(status));
                Outputs outputs;
                EXPECT_EQ(operation.run(sync, outputs), status == 0);
                EXPECT_THAT(mLog.take(), ElementsAreArray(expected(operation, mask, status)));
            }
        }
    }
}

TEST_F(Forwarding, HandsOutWhatTheServiceAnsweredAndStubsDoNothing) {
    ASSERT_EQ(sizeof(VideoSyncWraper), sizeof(void*));
    {
        VideoSyncWraper sync;
        EXPECT_EQ(gClients, 1);
        Outputs out;
        EXPECT_TRUE(sync.getSyncId(&out.number) && out.number == 8);
        EXPECT_TRUE(sync.getParameter(MEDIASYNC_KEY_PARAM7, &out.number) && out.number == 4);
        EXPECT_TRUE(sync.getPause(&out.flag) && out.flag);
        EXPECT_TRUE(sync.getTrackMediaTime(&out.time) && out.time == 1);
        EXPECT_TRUE(sync.getStartingTimeMedia(&out.time) && out.time == 2);
        EXPECT_TRUE(sync.getUpdateTimeThreshold(&out.time) && out.time == 3);
        EXPECT_TRUE(sync.VideoProcess(1, 0, MEDIASYNC_UNIT_US, &out.policy));
        EXPECT_EQ(out.policy.videopolicy, MEDIASYNC_VIDEO_HOLD);
        EXPECT_EQ(out.policy.realtimeUs, 9);
        gStatus = -1;
        mLog.take();
        float rate = 0.5F;
        EXPECT_TRUE(sync.setPlaybackRate(2.0F) && sync.getPlaybackRate(&rate));
        EXPECT_EQ(rate, 0.5F);
        EXPECT_TRUE(sync.setStartingTimeMedia(5) && sync.clearAnchor());
        EXPECT_THAT(mLog.take(), testing::IsEmpty());
    }
    EXPECT_EQ(gClients, 0);
}

TEST_F(Forwarding, ConstructorReadsTheLogMask) {
    // Like atoi: leading blanks and a sign, then digits; text that is no number gives 0, which
    // turns all messages off.
    const std::pair<const char*, const char*> kCases[] = {
        {"1", "set = 1"},          {"", "is not set used def = 1"},
        {" 23 bits", "set = 23"},  {"-1", "set = -1"},
        {"0x17", nullptr},         {"", nullptr},
        {"none", nullptr},         {"6", nullptr},
        {"4294967297", "set = 1"},
    };
    for (const auto& [value, line] : kCases) {
        SCOPED_TRACE(value);
        korvane::tv::setProperty("vendor.korvane.loglevels", value);
        const VideoSyncWraper sync;
        const Lines lines = line == nullptr
                                ? Lines{}
                                : Lines{std::string("I vendor.korvane.loglevels ") + line + "\n"};
        EXPECT_EQ(mLog.take(), lines);
    }
}

}  // namespace

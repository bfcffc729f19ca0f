// DisplayAdapterWraper on the simulated TV's remote object, and without one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "display/DisplayAdapterOps.h"
#include "display/DisplayAdapterWraper.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ManualClock.h"
#include "tests/support/Swapped.h"
#include "tv/Tv.h"

struct DisplayAdapterWraperPeer {
    static DisplayAdapterRemote* remote(const DisplayAdapterWraper& wrapper) {
        return wrapper.mDisplayAdapterRemote;
    }
};

namespace {

using korvane::test::LogCapture;
using korvane::test::setLogMaskProperty;
using korvane::test::Swapped;
using korvane::tv::Tv;
using testing::ElementsAre;
using testing::IsEmpty;

int gCreated = 0;
int gDestroyed = 0;

const std::string kProperty = "vendor.korvane.loglevels";

class DisplayAdapter : public testing::Test {
protected:
    DisplayAdapter() {
        korvane::tv::TvConfig config;
        config.displayThread = false;
        mTv = Tv::powerOn(config);
    }
    ~DisplayAdapter() override {
        mTv->powerOff();
        korvane::tv::clearProperties();
    }

    void SetUp() override { ASSERT_NE(gDisplayAdapterOps.mDestroy, nullptr); }

    /// Sets the mask by way of a wrapper's constructor and forgets what that logged.
    void setMask(int mask) {
        setLogMaskProperty(mask);
        { const DisplayAdapterWraper wrapper; }
        mLog.take();
    }

    korvane::test::ManualClock mClock;
    LogCapture mLog{"DisplayAdapterWraper"};
    std::shared_ptr<Tv> mTv;
    long mTimestamp = -7;
    int mPeriod = -8;
};

TEST_F(DisplayAdapter, answersWhatTheDisplayReports) {
    setMask(4);
    DisplayAdapterWraper wrapper;
    mLog.take();
    mClock.advanceUs(1'000'000);
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&mTimestamp, &mPeriod));
    EXPECT_EQ(mTimestamp, mTv->display().lastVsyncAt(mClock.nowNs()).timeNs);
    EXPECT_EQ(mPeriod, 16'666'666);
    EXPECT_EQ(mTv->display().reportCount(), 1);
    EXPECT_THAT(mLog.take(),
                ElementsAre("D vsynctime:" + std::to_string(mTimestamp) + ", vsyncinc:16666666"));
    setMask(0x13);
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&mTimestamp, &mPeriod));
    EXPECT_THAT(mLog.take(), IsEmpty());
}

TEST_F(DisplayAdapter, failedReportLeavesOutputsAndStillSucceeds) {
    setMask(4);
    DisplayAdapterWraper wrapper;
    mTv->display().setReportFails(true);
    mLog.take();
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&mTimestamp, &mPeriod));
    EXPECT_THAT(mLog.take(), ElementsAre("D vsynctime:-7, vsyncinc:-8"));
    mTv->powerOff();
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&mTimestamp, &mPeriod));
    EXPECT_EQ(mTimestamp, -7);
    EXPECT_EQ(mPeriod, -8);
}

TEST_F(DisplayAdapter, withoutCreateEntryPointSucceedsUntouchedAndSilent) {
    setMask(0x17);
    const Swapped absent(gDisplayAdapterOps.mCreate, nullptr);
    DisplayAdapterWraper wrapper;
    EXPECT_EQ(DisplayAdapterWraperPeer::remote(wrapper), nullptr);
    mLog.take();
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&mTimestamp, &mPeriod));
    EXPECT_EQ(mTimestamp, -7);
    EXPECT_EQ(mPeriod, -8);
    EXPECT_THAT(mLog.take(), IsEmpty());
}

TEST_F(DisplayAdapter, logsItsBeginningUnderTheOldMaskThenRefreshes) {
    setMask(1);
    setLogMaskProperty(0);
    { const DisplayAdapterWraper wrapper; }
    EXPECT_THAT(mLog.take(), ElementsAre("I [DisplayAdapterWraper:109]"));
    setLogMaskProperty(1);
    { const DisplayAdapterWraper wrapper; }
    EXPECT_THAT(mLog.take(),
                ElementsAre("I " + kProperty + " set = 1\n", "I [~DisplayAdapterWraper:119]"));
    korvane::tv::clearProperties();
    { const DisplayAdapterWraper wrapper; }
    EXPECT_THAT(mLog.take(), ElementsAre("I [DisplayAdapterWraper:109]",
                                         "I " + kProperty + " is not set used def = 1\n",
                                         "I [~DisplayAdapterWraper:119]"));
}

TEST_F(DisplayAdapter, givesTheRemoteObjectBackOnce) {
    static decltype(&createDisplayAdatperRemote) create;
    static decltype(&destroyDisplayAdapterRemote) destroy;
    create = gDisplayAdapterOps.mCreate;
    destroy = gDisplayAdapterOps.mDestroy;
    const Swapped counting(
        gDisplayAdapterOps.mCreate, +[] { return ++gCreated, create(); });
    const Swapped giving(
        gDisplayAdapterOps.mDestroy, +[](DisplayAdapterRemote* remote) {
            ++gDestroyed;
            destroy(remote);
        });
    {
        const DisplayAdapterWraper first;
        const DisplayAdapterWraper second;
        EXPECT_EQ(gCreated, 2);
        EXPECT_NE(DisplayAdapterWraperPeer::remote(first),
                  DisplayAdapterWraperPeer::remote(second));
    }
    EXPECT_EQ(gDestroyed, 2);
}

TEST_F(DisplayAdapter, withoutDestroyEntryPointLeavesTheRemoteObjectAlone) {
    DisplayAdapterRemote* left = nullptr;
    {
        const Swapped absent(gDisplayAdapterOps.mDestroy, nullptr);
        const DisplayAdapterWraper wrapper;
        left = DisplayAdapterWraperPeer::remote(wrapper);
    }
    int64_t timestampNs = -1;
    int32_t periodNs = -1;
    EXPECT_TRUE(left->getDisplayVsyncAndPeriod(&timestampNs, &periodNs)) << "still alive";
    gDisplayAdapterOps.mDestroy(left);
}

TEST_F(DisplayAdapter, keepsItsLayout) {
    EXPECT_EQ(sizeof(DisplayAdapterWraper), sizeof(void*));
    EXPECT_EQ(offsetof(tovakDisplayAdater_ops, mCreate), 0U);
    EXPECT_EQ(offsetof(tovakDisplayAdater_ops, mDestroy), 8U);
    EXPECT_EQ(offsetof(tovakDisplayAdater_ops, mInited), 16U);
    EXPECT_EQ(offsetof(tovakDisplayAdater_ops, mLibHandle), 24U);
}

}  // namespace

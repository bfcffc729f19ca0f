// SPDX-License-Identifier: Apache-2.0
// libtovak_display_adapter_remote.so: a remote object that answers the vsync query from the current
// TV's display. Without a TV, or while the display reports nothing, the query fails and writes
// nothing.
#include <cstdio>
#include <cstdlib>

#include "platform/DisplayAdapterRemote.h"
#include "tv/Tv.h"

namespace {

/// Nothing calls the eleven operations before the query; a caller that does has the slot order
/// wrong.
[[noreturn]] void refuse(int slot) {
    std::fprintf(stderr, "display adapter: virtual slot %d called; the vsync query is slot 11\n",
                 slot);
    std::abort();
}

class Remote final : public DisplayAdapterRemote {
public:
    Remote() {
        if (const auto tv = korvane::tv::Tv::current()) {
            tv->display().onRemoteMade();
        }
    }
    ~Remote() {
        if (const auto tv = korvane::tv::Tv::current()) {
            tv->display().onRemoteDestroyed();
        }
    }
    Remote(const Remote&) = delete;
    Remote& operator=(const Remote&) = delete;

    void slot0() override { refuse(0); }
    void slot1() override { refuse(1); }
    void slot2() override { refuse(2); }
    void slot3() override { refuse(3); }
    void slot4() override { refuse(4); }
    void slot5() override { refuse(5); }
    void slot6() override { refuse(6); }
    void slot7() override { refuse(7); }
    void slot8() override { refuse(8); }
    void slot9() override { refuse(9); }
    void slot10() override { refuse(10); }

    bool getDisplayVsyncAndPeriod(int64_t* timestampNs, int32_t* periodNs) override {
        const auto tv = korvane::tv::Tv::current();
        korvane::tv::VsyncReport report;
        if (!tv || !tv->display().report(korvane::tv::nowNs(), &report)) {
            return false;
        }
        *timestampNs = report.timestampNs;
        *periodNs = report.periodNs;
        return true;
    }
};

}  // namespace

#pragma GCC visibility push(default)

DisplayAdapterRemote* createDisplayAdatperRemote() {
    return new Remote;
}

void destroyDisplayAdapterRemote(DisplayAdapterRemote* remote) {
    delete static_cast<Remote*>(remote);
}

#pragma GCC visibility pop

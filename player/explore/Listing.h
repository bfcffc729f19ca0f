// SPDX-License-Identifier: Apache-2.0
// A replay that notes what the library did: the steps before each preemption and at the end, by
// thread and source line, with the preemptions marked.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tv/explore/Strategies.h"

namespace korvane::player {

class ListedReplay final : public tv::Replay {
public:
    ListedReplay(std::vector<tv::Deviation> schedule, bool listing)
        : tv::Replay(std::move(schedule)), mListing(listing) {}

    std::string text() const;

protected:
    bool begin() override;
    tv::Preemption decidePoint(const tv::SchedulePoint& point,
                               const tv::ThreadList& runnable) override;
    size_t decideChoice(const tv::ScheduleChoice& choice) override;

private:
    struct Noted {
        tv::SchedulePoint point;
        tv::Preemption preemption;
    };
    void name(int32_t thread);

    const bool mListing;
    std::vector<Noted> mNoted;
    std::map<int32_t, std::string> mNames;
};

}  // namespace korvane::player

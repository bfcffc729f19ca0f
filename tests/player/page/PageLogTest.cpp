// SPDX-License-Identifier: Apache-2.0
#include "player/page/PageLog.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace korvane::player {
namespace {

TEST(PageLogTest, ReadsThePatternInForceFromTheLibrarysLines) {
    const std::vector<std::pair<tv::LogLine, std::string>> lines = {
        {{4, "VideoSyncFRAC", "[detectPattern]3:2 pattern detected"}, "[3:2]"},
        {{4, "VideoSyncFRAC", "[detectPattern] pattern [3:2] broken"}, ""},
        {{4, "VideoSyncFRAC", "[detectPattern]4:1 pattern detected"}, "[4:1]"},
        {{4, "Other", "[detectPattern]4:1 pattern broken"}, "[4:1]"},
        {{3, "VideoSyncFRAC", "[checkPattern]pattern [4:1] hold one frame"}, "[4:1]"},
        {{4, "VideoSyncFRAC", "[updateHWCVsyncInfo]hdmi frequency changed from 50->60"}, ""}};
    PageLog log;
    std::string expected;
    size_t changes = 0;
    for (const auto& [line, name] : lines) {
        log.add(line, static_cast<int64_t>(changes));
        changes += name != expected ? 1 : 0;
        expected = name;
        ASSERT_EQ(log.patterns().size(), changes) << line.text;
        EXPECT_EQ(log.patterns().back().name, name) << line.text;
    }
    log.restartPattern(9);
    EXPECT_EQ(log.patterns().size(), changes) << "none was in force";
}

TEST(PageLogTest, KeepsTheFirstLinesOfEachKindAndCountsTheRest) {
    PageLog log;
    for (int i = 0; i < 1000; ++i) {
        log.add({6, "tag", "late by " + std::to_string(i)}, i);
        log.add({5, "tag", "kind " + std::string(static_cast<size_t>(i), 'x')}, i);
    }
    int64_t lines = log.left();
    int64_t late = 0;
    for (const auto& kept : log.lines()) {
        lines += 1 + kept.more;
        late += kept.line.priority == 6 ? 1 : 0;
    }
    EXPECT_EQ(lines, 2000);
    EXPECT_EQ(late, 100);
}

}  // namespace
}  // namespace korvane::player

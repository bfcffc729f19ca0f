// SPDX-License-Identifier: Apache-2.0
#include "player/screen/Strip.h"

#include <fmt/format.h>

#include <algorithm>

#include "player/base/Units.h"
#include "player/screen/BitmapFont.h"
#include "player/screen/PngWriter.h"

namespace korvane::player {
namespace {

constexpr int kThumbWidth = 192;
constexpr int kThumbHeight = 108;
constexpr int kColumns = 8;
constexpr int kRows = Strip::kCells / kColumns;
constexpr int kGap = 4;
constexpr int kLabelHeight = 40;
constexpr int kTitleHeight = 32;
constexpr int kScale = 2;
/// Brightness of labels: alternating from frame to frame; and that of the strip's own frame.
constexpr uint8_t kLabelLuma[] = {40, 80};
constexpr uint8_t kTargetLuma = 200;

void drawCell(Canvas* sheet, const Strip::Cell& cell, int at, uint8_t luma) {
    const int x = kGap + at % kColumns * (kThumbWidth + kGap);
    const int y = kTitleHeight + at / kColumns * (kThumbHeight + kLabelHeight + kGap);
    const uint8_t ink = luma == kTargetLuma ? kBlack : kWhite;
    if (cell.picture) {
        sheet->picture(*cell.picture, {x, y, kThumbWidth, kThumbHeight});
    }
    sheet->fill({x, y + kThumbHeight, kThumbWidth, kLabelHeight}, luma);
    const std::string frame =
        cell.frameNo < 0 ? "no picture"
                         : fmt::format("F{}  {}/{}", cell.frameNo, cell.dwell,
                                       cell.dwells > 0 ? std::to_string(cell.dwells) : "-");
    const int top = y + kThumbHeight + kGap;
    sheet->text(x + kGap, top, kScale, frame, ink);
    sheet->text(x + kGap, top + (kGlyphHeight + 2) * kScale, kScale,
                fmt::format("V{} {}", cell.vsync, seconds(cell.playedUs)), ink);
}

}  // namespace

Strip::Strip(const StripTarget& target, int turnDegrees)
    : mTarget(target), mSmall(kThumbWidth, kThumbHeight, turnDegrees) {}

void Strip::onVsync(const ScreenMoment& moment, const tv::SoundRecord& /*sound*/) {
    const std::lock_guard<std::mutex> guard(mLock);
    if (mFound && moment.vsync.index > mFound->vsync + kCells + kKeptAfter) {
        return;
    }
    const bool sameFrame = !mCells.empty() && mCells.back().frameNo == moment.frameNo &&
                           (moment.frameNo < 0 || moment.dwell > 1);
    if (!sameFrame) {
        endDwell();
    }
    add(moment, sameFrame);
    if (!mFound && isTarget(moment)) {
        mFound = mCells.back();
    }
    dropOld();
}

void Strip::add(const ScreenMoment& moment, bool sameFrame) {
    Cell cell{moment.vsync.index, moment.playedUs, moment.frameNo, moment.dwell, 0, nullptr};
    if (sameFrame) {
        cell.picture = mCells.back().picture;
    } else if (moment.frameNo >= 0) {
        const Area all{0, 0, kThumbWidth, kThumbHeight};
        if (moment.picture) {
            mSmall.picture(*moment.picture, all);
            mColours = moment.picture->colorspace;
        } else {
            mSmall.testPicture(moment.frameNo, all);
        }
        cell.picture = FramePtr(av_frame_clone(&mSmall.frame()));
    }
    mPictures += sameFrame ? 0 : 1;
    mCells.push_back(cell);
    if (mStart.size() < kCells + kKeptAfter) {
        mStart.push_back(cell);
    }
}

/// The last frame's dwell is known now.
void Strip::endDwell() {
    const auto end = [](auto first, auto last) {
        for (auto cell = first; cell != last && cell->frameNo == first->frameNo; ++cell) {
            cell->dwells = first->dwell;
        }
    };
    end(mCells.rbegin(), mCells.rend());
    if (!mStart.empty() && mStart.back().vsync == mCells.back().vsync) {
        end(mStart.rbegin(), mStart.rend());
    }
}

bool Strip::isTarget(const ScreenMoment& moment) const {
    switch (mTarget.kind) {
        case StripTarget::Kind::Frame:
            return moment.frameNo >= mTarget.value;
        case StripTarget::Kind::Time:
            return moment.playedUs >= mTarget.value;
        case StripTarget::Kind::FirstBreak:
            break;
    }
    return false;
}

void Strip::dropOld() {
    const int64_t newest = mFound ? mFound->vsync : mCells.back().vsync;
    const bool any = mFound || mTarget.kind != StripTarget::Kind::FirstBreak;
    while (any ? mCells.front().vsync < newest - kBefore : mPictures > kMostPictures) {
        const auto picture = mCells.front().picture;
        mCells.pop_front();
        mPictures -= mCells.front().picture != picture ? 1 : 0;
    }
}

void Strip::aimAt(int64_t frameNo) {
    const std::lock_guard<std::mutex> guard(mLock);
    if (mFound || mTarget.kind != StripTarget::Kind::FirstBreak) {
        return;
    }
    const auto found = std::find_if(mCells.begin(), mCells.end(), [frameNo](const Cell& cell) {
        return cell.frameNo == frameNo;
    });
    if (found != mCells.end()) {
        mFound = *found;
        dropOld();
    }
}

void Strip::onScreenEnd(const tv::SoundRecord& /*sound*/) {
    const std::lock_guard<std::mutex> guard(mLock);
    if (!mCells.empty()) {
        endDwell();
    }
}

bool Strip::found() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mFound.has_value();
}

std::vector<Strip::Cell> Strip::cells() const {
    const std::lock_guard<std::mutex> guard(mLock);
    std::vector<Cell> cells = mFound ? std::vector<Cell>(mCells.begin(), mCells.end()) : mStart;
    cells.resize(std::min<size_t>(cells.size(), kCells));
    return cells;
}

void Strip::write(const std::string& title, std::ostream* out) const {
    Canvas sheet(kColumns * (kThumbWidth + kGap) + kGap,
                 kTitleHeight + kRows * (kThumbHeight + kLabelHeight + kGap));
    sheet.text(kGap, (kTitleHeight - kGlyphHeight * kScale) / 2, kScale, title);
    const auto shown = cells();
    const std::lock_guard<std::mutex> guard(mLock);
    size_t shade = 0;
    for (size_t i = 0; i < shown.size(); ++i) {
        shade += i > 0 && shown[i].frameNo != shown[i - 1].frameNo ? 1 : 0;
        const bool target = mFound && shown[i].frameNo == mFound->frameNo;
        drawCell(&sheet, shown[i], static_cast<int>(i),
                 target ? kTargetLuma : kLabelLuma[shade % 2]);
    }
    writePng(sheet, mColours, out);
}

}  // namespace korvane::player

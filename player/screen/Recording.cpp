// SPDX-License-Identifier: Apache-2.0
#include "player/screen/Recording.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <vector>

#include "player/report/Cadence.h"
#include "player/screen/HeardSound.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace korvane::player {
namespace {

/// A picture that stays longer is written before it is known how long it stays.
constexpr int64_t kHeldVsyncs = 250;
/// A silence may become known this late.
constexpr int64_t kSoundSettlesNs = 500'000'000;
/// The last dwells, from which the pattern in the bar is read.
constexpr size_t kDrawnDwells = 24;

}  // namespace

Recording::Recording(const RecordingSpec& spec, std::ostream* out)
    : mSpec(spec),
      mPictureArea{0, 0, (spec.width + 1) & ~1, (spec.height + 1) & ~1},
      mBarArea{0, mPictureArea.height, mPictureArea.width,
               spec.bar ? barHeight(mPictureArea.width) : 0},
      mCanvas(mPictureArea.width, mPictureArea.height + mBarArea.height, spec.turnDegrees),
      mWriter(spec.film, out) {}

template <typename Code>
void Recording::guard(Code code) {
    if (!mFailure.empty()) {
        return;
    }
    try {
        code();
    } catch (const std::exception& error) {
        mFailure = error.what();
    }
}

void Recording::onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) {
    guard([&] {
        see(moment);
        writeSound(sound, moment.vsync.timeNs - kSoundSettlesNs);
    });
}

void Recording::onScreenEnd(const tv::SoundRecord& sound) {
    guard([&] {
        if (mRun) {
            writeRun(true);
        }
        if (mWritten == 0) {
            throw std::runtime_error("playback ended before the first vsync");
        }
        writeSound(sound, INT64_MAX);
        mWriter.finish();
    });
}

void Recording::see(const ScreenMoment& moment) {
    if (mFirstVsync < 0) {
        mFirstVsync = moment.vsync.index;
        mOriginNs = moment.vsync.timeNs;
    }
    // In real time a recording that fell behind misses vsyncs: they show the picture before.
    const int64_t missed =
        mRun ? moment.vsync.index - mFirstVsync - mWritten - (mRun->vsyncs - mRun->written) : 0;
    const bool same = mRun && mRun->first.frameNo == moment.frameNo &&
                      mRun->first.picture == moment.picture &&
                      (moment.frameNo < 0 || moment.dwell > 1);
    if (mRun) {
        mRun->vsyncs += missed + (same ? 1 : 0);
    }
    if (!same) {
        if (moment.picture) {
            describeColours(*moment.picture);
        }
        if (mRun) {
            writeRun(true);
            noteDwell();
        }
        mRun = Run{moment, 1, 0, {}};
        drawPicture(moment);
    }
    mRun->offsetUs = moment.offsetUs;
    // Black vsyncs wait for the first picture, which sets the film's colour space.
    if (mRun->vsyncs > kHeldVsyncs && (mWritten > 0 || moment.frameNo >= 0)) {
        writeRun(false);
    }
}

void Recording::writeRun(bool ended) {
    for (; mRun->written < mRun->vsyncs; ++mRun->written, ++mWritten) {
        if (mSpec.bar) {
            Figures figures;
            figures.frameNo = mRun->first.frameNo;
            figures.vsync = mFirstVsync + mWritten;
            figures.dwell = mRun->first.dwell + mRun->written;
            figures.dwells = ended ? mRun->first.dwell + mRun->vsyncs - 1 : 0;
            figures.pattern = mPattern;
            figures.offsetUs = mRun->offsetUs;
            drawBar(&mCanvas, mBarArea, figures);
        }
        mWriter.addPicture(&mCanvas.frame(), mWritten);
    }
}

void Recording::noteDwell() {
    if (mRun->first.frameNo < 0) {
        return;
    }
    mDwells.push_back(static_cast<int>(mRun->vsyncs));
    if (mDwells.size() > kDrawnDwells) {
        mDwells.pop_front();
    }
    mPattern = seenPatternName({mDwells.begin(), mDwells.end()});
}

void Recording::drawPicture(const ScreenMoment& moment) {
    if (moment.picture) {
        mCanvas.picture(*moment.picture, mPictureArea);
    } else if (moment.frameNo >= 0) {
        mCanvas.testPicture(moment.frameNo, mPictureArea);
    } else {
        mCanvas.fill(mPictureArea, kBlack);
    }
}

/// The film's colour space; BT.709 if its pictures are RGB.
void Recording::describeColours(const AVFrame& picture) {
    const auto* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture.format));
    const bool rgb = (format->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    AVFrame& frame = mCanvas.frame();
    frame.color_range = AVCOL_RANGE_MPEG;
    frame.colorspace = rgb ? AVCOL_SPC_BT709 : picture.colorspace;
    frame.color_primaries = picture.color_primaries;
    frame.color_trc = picture.color_trc;
    const AVRational shape = picture.sample_aspect_ratio;
    frame.sample_aspect_ratio =
        mSpec.turnDegrees % 180 != 0 && shape.num > 0 ? av_inv_q(shape) : shape;
}

/// Never beyond the pictures that are written, so that both end together.
void Recording::writeSound(const tv::SoundRecord& sound, int64_t upToNs) {
    if (!mSpec.sound || mWritten == 0) {
        return;
    }
    const AVRational samplesPerPicture = av_div_q(AVRational{kSoundHz, 1}, mSpec.film.pictureRate);
    int64_t end = av_rescale(mWritten, samplesPerPicture.num, samplesPerPicture.den);
    if (upToNs != INT64_MAX) {
        end = std::min(end, av_rescale(upToNs - mOriginNs, kSoundHz, 1'000'000'000));
    }
    if (end > mSamples) {
        mWriter.addSound(heardSound(sound, *mSpec.sound, {static_cast<double>(mOriginNs) / 1000.0},
                                    mSamples, end - mSamples));
        mSamples = end;
    }
}

}  // namespace korvane::player

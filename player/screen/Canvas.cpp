// SPDX-License-Identifier: Apache-2.0
#include "player/screen/Canvas.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <tuple>

#include "player/screen/BitmapFont.h"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace korvane::player {
namespace {

constexpr uint8_t kNoColour = 128;

/// Old names of formats that imply full range; the scaler warns of them.
AVPixelFormat withoutRange(int format) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P:
            return AV_PIX_FMT_YUV440P;
        default:
            return static_cast<AVPixelFormat>(format);
    }
}

int even(int value) {
    return std::max(value & ~1, 2);
}

/// The largest area of a picture's shape in the middle of another.
Area fitted(int width, int height, const Area& area) {
    const int64_t byWidth = int64_t{area.width} * height;
    const int64_t byHeight = int64_t{area.height} * width;
    Area fit = area;
    if (byWidth > byHeight) {
        fit.width = even(static_cast<int>(byHeight / height));
        fit.x += (area.width - fit.width) / 2 & ~1;
    } else if (byWidth < byHeight) {
        fit.height = even(static_cast<int>(byWidth / width));
        fit.y += (area.height - fit.height) / 2 & ~1;
    }
    return fit;
}

}  // namespace

void Canvas::FreeScaler::operator()(SwsContext* scaler) const {
    sws_freeContext(scaler);
}

bool Canvas::Scaling::operator==(const Scaling& other) const {
    const auto all = [](const Scaling& s) {
        return std::tie(s.width, s.height, s.format, s.fullRange, s.toWidth, s.toHeight);
    };
    return all(*this) == all(other);
}

Canvas::Canvas(int width, int height, int turnDegrees)
    : mFrame(av_frame_alloc()), mQuarters((turnDegrees / 90 % 4 + 4) % 4) {
    mFrame->width = width;
    mFrame->height = height;
    mFrame->format = AV_PIX_FMT_YUV420P;
    if (av_frame_get_buffer(mFrame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    fill({0, 0, width, height}, kBlack);
}

Canvas::~Canvas() = default;

void Canvas::beginDrawing() {
    if (av_frame_make_writable(mFrame.get()) < 0) {
        throw std::bad_alloc();
    }
}

void Canvas::fill(const Area& area, uint8_t luma) {
    beginDrawing();
    for (int plane = 0; plane < 3; ++plane) {
        const int shift = plane == 0 ? 0 : 1;
        const int stride = mFrame->linesize[plane];
        for (int row = area.y >> shift; row < (area.y + area.height) >> shift; ++row) {
            std::memset(mFrame->data[plane] + ptrdiff_t{row} * stride + (area.x >> shift),
                        plane == 0 ? luma : kNoColour, static_cast<size_t>(area.width >> shift));
        }
    }
}

/// Draws brightness alone, so letters may stand at odd places. What does not fit is left out.
void Canvas::text(int x, int y, int scale, const std::string& text, uint8_t luma) {
    beginDrawing();
    const auto drawDot = [&](int left, int top) {
        for (int row = top; row < std::min(top + scale, mFrame->height); ++row) {
            if (left >= 0 && left + scale <= mFrame->width) {
                std::memset(mFrame->data[0] + ptrdiff_t{row} * mFrame->linesize[0] + left, luma,
                            static_cast<size_t>(scale));
            }
        }
    };
    for (const char letter : text) {
        const uint64_t dots = glyph(letter);
        for (int dot = 0; dot < kGlyphWidth * kGlyphHeight; ++dot) {
            if ((dots >> (kGlyphWidth * kGlyphHeight - 1 - dot) & 1) != 0) {
                drawDot(x + dot % kGlyphWidth * scale, y + dot / kGlyphWidth * scale);
            }
        }
        x += kGlyphStep * scale;
    }
}

/// Keeps the picture's colour space, for tags beside the picture to name; full range becomes video
/// range, and RGB becomes BT.709.
void Canvas::makeScaler(const Scaling& scaling) {
    const auto format = static_cast<AVPixelFormat>(scaling.format);
    mScaler.reset(sws_getContext(scaling.width, scaling.height, format, scaling.toWidth,
                                 scaling.toHeight, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                 nullptr, nullptr));
    if (!mScaler) {
        throw std::bad_alloc();
    }
    const int* matrix = sws_getCoefficients(SWS_CS_ITU709);
    constexpr int kOne = 1 << 16;
    sws_setColorspaceDetails(mScaler.get(), matrix, scaling.fullRange ? 1 : 0, matrix, 0, 0, kOne,
                             kOne);
    mScaling = scaling;
}

void Canvas::picture(const AVFrame& source, const Area& area) {
    const bool onItsSide = mQuarters % 2 != 0;
    const Area fit = onItsSide ? fitted(source.height, source.width, area)
                               : fitted(source.width, source.height, area);
    if (fit.width != area.width || fit.height != area.height) {
        fill(area, kBlack);
    }
    if (mQuarters == 0) {
        scale(source, fit);
        return;
    }
    const Area whole{0, 0, onItsSide ? fit.height : fit.width, onItsSide ? fit.width : fit.height};
    if (!mUnturned || mUnturned->frame().width != whole.width ||
        mUnturned->frame().height != whole.height) {
        mUnturned = std::make_unique<Canvas>(whole.width, whole.height);
    }
    mUnturned->scale(source, whole);
    turn(*mUnturned, fit);
}

void Canvas::scale(const AVFrame& source, const Area& fit) {
    const AVPixelFormat format = withoutRange(source.format);
    const bool rgb = (av_pix_fmt_desc_get(format)->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    const bool full =
        rgb || source.color_range == AVCOL_RANGE_JPEG || format != static_cast<int>(source.format);
    const Scaling scaling{source.width, source.height, format, full, fit.width, fit.height};
    if (!mScaler || !(scaling == mScaling)) {
        makeScaler(scaling);
    }
    beginDrawing();
    uint8_t* planes[4] = {};
    for (int plane = 0; plane < 3; ++plane) {
        const int shift = plane == 0 ? 0 : 1;
        planes[plane] = mFrame->data[plane] + ptrdiff_t{fit.y >> shift} * mFrame->linesize[plane] +
                        (fit.x >> shift);
    }
    sws_scale(mScaler.get(), source.data, source.linesize, 0, source.height, planes,
              mFrame->linesize);
}

void Canvas::turn(const Canvas& upright, const Area& fit) {
    beginDrawing();
    const AVFrame& from = upright.frame();
    for (int plane = 0; plane < 3; ++plane) {
        const int shift = plane == 0 ? 0 : 1;
        const ptrdiff_t stride = from.linesize[plane];
        const ptrdiff_t right = (from.width >> shift) - 1;
        const ptrdiff_t bottom = (from.height >> shift) - 1;
        // Where the first pixel comes from, and the steps to the pixels right of it and below it.
        const ptrdiff_t first = mQuarters == 1   ? bottom * stride
                                : mQuarters == 2 ? bottom * stride + right
                                                 : right;
        const ptrdiff_t across = mQuarters == 1 ? -stride : mQuarters == 2 ? -1 : stride;
        const ptrdiff_t down = mQuarters == 1 ? 1 : mQuarters == 2 ? -stride : -1;
        for (ptrdiff_t y = 0; y < fit.height >> shift; ++y) {
            uint8_t* const row = mFrame->data[plane] +
                                 ((fit.y >> shift) + y) * mFrame->linesize[plane] +
                                 (fit.x >> shift);
            for (ptrdiff_t x = 0; x < fit.width >> shift; ++x) {
                row[x] = from.data[plane][first + y * down + x * across];
            }
        }
    }
}

void Canvas::testPicture(int64_t frameNo, const Area& area) {
    constexpr uint8_t kGround = 64;
    constexpr uint8_t kBar = 180;
    /// The bar is this fraction of the picture wide, and crosses it in as many frames.
    constexpr int kSteps = 48;
    fill(area, kGround);
    const int step = even(area.width / kSteps);
    const auto at = static_cast<int>(frameNo % kSteps);
    fill({area.x + std::min(at * step, area.width - step), area.y, step, area.height}, kBar);
    const std::string number = std::to_string(frameNo);
    const int scale = std::max(area.height / (3 * kGlyphHeight), 1);
    text(area.x + (area.width - textWidth(number, scale)) / 2,
         area.y + (area.height - kGlyphHeight * scale) / 2, scale, number);
}

}  // namespace korvane::player

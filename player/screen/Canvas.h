// SPDX-License-Identifier: Apache-2.0
// A picture to draw on, as encoders take it: YUV 4:2:0, 8 bits, video range. Areas have even
// coordinates, because colour has half the resolution.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "player/media/Ffmpeg.h"

struct SwsContext;

namespace korvane::player {

struct Area {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

constexpr uint8_t kBlack = 16;
constexpr uint8_t kWhite = 235;

class Canvas {
public:
    /// Black.
    /// @param turnDegrees  clockwise, in quarters: how a display has to turn the film's pictures
    /// @throws std::bad_alloc
    Canvas(int width, int height, int turnDegrees = 0);
    ~Canvas();
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;

    /// What was drawn. An encoder may keep a reference: the next drawing goes to a copy.
    const AVFrame& frame() const { return *mFrame; }
    /// For tags beside the picture, such as its time.
    AVFrame& frame() { return *mFrame; }

    void fill(const Area& area, uint8_t luma);
    /// @param scale  pixels a dot of the font
    void text(int x, int y, int scale, const std::string& text, uint8_t luma = kWhite);
    /// Scales a picture, turned, into an area, as large as fits; the rest of the area is black.
    void picture(const AVFrame& source, const Area& area);
    /// Draws a picture for content that has none: the frame's number, and a bar that moves with it.
    void testPicture(int64_t frameNo, const Area& area);

private:
    struct FreeScaler {
        void operator()(SwsContext* scaler) const;
    };
    /// What a scaler was made for.
    struct Scaling {
        int width = 0;
        int height = 0;
        int format = -1;
        bool fullRange = false;
        int toWidth = 0;
        int toHeight = 0;
        bool operator==(const Scaling& other) const;
    };
    void makeScaler(const Scaling& scaling);
    void beginDrawing();
    void scale(const AVFrame& source, const Area& fit);
    void turn(const Canvas& upright, const Area& fit);

    FramePtr mFrame;
    const int mQuarters;                ///< clockwise
    std::unique_ptr<Canvas> mUnturned;  ///< scaled, not yet turned
    std::unique_ptr<SwsContext, FreeScaler> mScaler;
    Scaling mScaling;
};

}  // namespace korvane::player

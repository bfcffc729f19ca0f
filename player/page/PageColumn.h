// SPDX-License-Identifier: Apache-2.0
// A column of the report page's data: one number or nothing per row, compressed as it comes.
//
//   number -> difference from the prediction -> variable-length bytes -> zlib -> base64
//
// The prediction is the number before, or the straight line through the two before. Frames come at
// an even pace, so most differences are among a few values. A row is written in groups of seven
// bits, lowest first, the top bit set on all but the last: 0 for nothing, else the difference with
// its sign in the lowest bit, plus one. An hour at 60 frames a second takes some tens of kilobytes
// a column.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace korvane::player {

/// zlib as a stream. Any amount of text may be added.
class Deflater {
public:
    Deflater();
    ~Deflater();
    void add(std::string_view bytes);
    /// Ends the stream. Call once.
    /// @return all that came out, in base64
    std::string finish();

private:
    struct Stream;
    void run(std::string_view bytes, int flush);
    std::unique_ptr<Stream> mStream;
    std::string mOut;
};

class PageColumn {
public:
    /// What the next number is predicted from.
    enum class Prediction { Zero, Last, Line };

    explicit PageColumn(Prediction prediction) : mPrediction(prediction) {}
    void add(std::optional<int64_t> number);

    Prediction prediction() const { return mPrediction; }
    int64_t rows() const { return mRows; }
    /// The column in base64. Call once, after the last row.
    std::string finish();

private:
    const Prediction mPrediction;
    int64_t mLast = 0;
    int64_t mStep = 0;
    int64_t mRows = 0;
    std::string mBlock;  ///< bytes on their way to the compressor
    Deflater mDeflater;
};

}  // namespace korvane::player

// SPDX-License-Identifier: Apache-2.0
#include "player/page/PageColumn.h"

#include <zlib.h>

#include <cstddef>
#include <stdexcept>

namespace korvane::player {
namespace {

constexpr size_t kPageBlockBytes = 1 << 12;

std::string base64(const std::string& bytes) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const auto byte = [&bytes](size_t at) {
            return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
        };
        const unsigned group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
        text += kDigits[group >> 18];
        text += kDigits[group >> 12 & 63];
        text += i + 1 < bytes.size() ? kDigits[group >> 6 & 63] : '=';
        text += i + 2 < bytes.size() ? kDigits[group & 63] : '=';
    }
    return text;
}

}  // namespace

struct Deflater::Stream {
    z_stream zlib{};
};

Deflater::Deflater() : mStream(std::make_unique<Stream>()) {
    if (deflateInit(&mStream->zlib, Z_DEFAULT_COMPRESSION) != Z_OK) {
        throw std::runtime_error("no memory for the report page's data");
    }
}

Deflater::~Deflater() {
    deflateEnd(&mStream->zlib);
}

void Deflater::run(std::string_view bytes, int flush) {
    z_stream& zlib = mStream->zlib;
    // zlib declares its input without const and does not write it.
    zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    zlib.avail_in = static_cast<uInt>(bytes.size());
    char block[kPageBlockBytes];
    do {
        zlib.next_out = reinterpret_cast<Bytef*>(block);
        zlib.avail_out = sizeof block;
        deflate(&zlib, flush);
        mOut.append(block, sizeof block - zlib.avail_out);
    } while (zlib.avail_out == 0);
}

void Deflater::add(std::string_view bytes) {
    run(bytes, Z_NO_FLUSH);
}

std::string Deflater::finish() {
    run({}, Z_FINISH);
    return base64(mOut);
}

void PageColumn::add(std::optional<int64_t> number) {
    ++mRows;
    uint64_t code = 0;
    if (number) {
        const int64_t predicted = mPrediction == Prediction::Zero   ? 0
                                  : mPrediction == Prediction::Last ? mLast
                                                                    : mLast + mStep;
        const int64_t off = *number - predicted;
        code = (off < 0 ? ~(static_cast<uint64_t>(off) << 1) : static_cast<uint64_t>(off) << 1) + 1;
        mStep = *number - mLast;
        mLast = *number;
    }
    while (code >= 0x80) {
        mBlock.push_back(static_cast<char>(code | 0x80));
        code >>= 7;
    }
    mBlock.push_back(static_cast<char>(code));
    if (mBlock.size() >= kPageBlockBytes) {
        mDeflater.add(mBlock);
        mBlock.clear();
    }
}

std::string PageColumn::finish() {
    mDeflater.add(mBlock);
    mBlock.clear();
    return mDeflater.finish();
}

}  // namespace korvane::player

// SPDX-License-Identifier: Apache-2.0
// The records that a player and the renderer exchange.
//
// A `videoframe` is one frame inside the renderer. A callback's `info` points to a `rendertime` or
// a `framestatus`; their layout is a binary interface with players that were built years ago.
#pragma once

#include <cstddef>
#include <cstdint>

/// One frame from the player, kept until it is shown or dropped.
struct videoframe {
    int32_t fd;           ///< the frame's buffer; the player owns and closes the descriptor
    int64_t timestampUs;  ///< media time, microseconds
    int32_t frameNo;      ///< input number; stays 0 unless the per-frame log bit (0x2) is on
    bool peek;            ///< show at once, without waiting for audio
};

/// Passed to a callback of type 1: a frame's render time has come.
struct rendertime {
    int64_t mediaTimeUs;   ///< the frame's media time, as the player passed it
    int64_t renderTimeUs;  ///< monotonic time at which the frame is due on screen, us
};
static_assert(sizeof(rendertime) == 16 && offsetof(rendertime, mediaTimeUs) == 0 &&
                  offsetof(rendertime, renderTimeUs) == 8,
              "players read this record by offset");

/// Passed to a callback of type 2: a buffer belongs to the player again.
struct framestatus {
    int32_t fd;
    /// 1: shown, or returned at show time because of a flush or stop; 0: dropped or flushed.
    uint8_t rendered;
    uint8_t reserved[3];  ///< zero
};
static_assert(sizeof(framestatus) == 8 && offsetof(framestatus, fd) == 0 &&
                  offsetof(framestatus, rendered) == 4,
              "players read this record by offset");

// SPDX-License-Identifier: Apache-2.0
// The records that travel between a player and the renderer.
//
// A `videoframe` is one frame in flight. `rendertime` and `framestatus` are what a callback's
// `info` points to; their layout is an interface with players that were built years ago.
#pragma once

#include <cstddef>
#include <cstdint>

/// One frame that the player handed in, as the renderer keeps it until it is shown or dropped.
struct videoframe {
    int32_t fd;           ///< the frame's buffer; the player's own descriptor, never closed here
    int64_t timestampUs;  ///< media time, microseconds
    int32_t frameNo;      ///< input number; stays 0 unless the per-frame log bit (0x2) is on
    bool peek;            ///< show at once, before synchronisation with audio
};

/// What a callback of type 1 receives: a frame's render time has come.
struct rendertime {
    int64_t mediaTimeUs;   ///< the frame's media time as handed in
    int64_t renderTimeUs;  ///< monotonic time at which it is to be on screen, microseconds
};
static_assert(sizeof(rendertime) == 16 && offsetof(rendertime, mediaTimeUs) == 0 &&
                  offsetof(rendertime, renderTimeUs) == 8,
              "players read this record by offset");

/// What a callback of type 2 receives: a buffer is the player's again.
struct framestatus {
    int32_t fd;
    uint8_t
        rendered;  ///< 1: shown, or refused at show time by a flush or stop; 0: dropped, flushed
    uint8_t reserved[3];  ///< zero
};
static_assert(sizeof(framestatus) == 8 && offsetof(framestatus, fd) == 0 &&
                  offsetof(framestatus, rendered) == 4,
              "players read this record by offset");

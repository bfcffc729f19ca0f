// SPDX-License-Identifier: Apache-2.0
// The video tunnel client's one log tag and mask: the loader and the connection share them, and a
// connection's constructor refreshes them for both. Constant-initialised, because the loader logs
// while the library is being loaded.
#pragma once

#include "platform/LogMask.h"

namespace korvane::videotunnel {

inline constexpr char kLogTag[] = "VideoTunnelWraper";

inline LogMask gLogMask;

}  // namespace korvane::videotunnel

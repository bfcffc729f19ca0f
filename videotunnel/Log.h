// SPDX-License-Identifier: Apache-2.0
// The video tunnel client's log tag and mask, shared by the loader and the connection; a
// connection's constructor refreshes the mask. Constant-initialised, because the loader logs while
// the library is being loaded.
#pragma once

#include "platform/LogMask.h"

namespace korvane::videotunnel {

inline constexpr char kLogTag[] = "VideoTunnelWraper";

inline LogMask gLogMask;

}  // namespace korvane::videotunnel

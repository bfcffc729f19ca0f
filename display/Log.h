// SPDX-License-Identifier: Apache-2.0
// The display adapter client's one log tag and mask, shared by loader and wrapper; a wrapper's
// constructor refreshes the mask for both. Constant-initialised, because the loader logs while the
// library is being loaded.
#pragma once

#include "platform/LogMask.h"

namespace korvane::display {

inline constexpr char kLogTag[] = "DisplayAdapterWraper";

inline LogMask gLogMask;

}  // namespace korvane::display

// SPDX-License-Identifier: Apache-2.0
// The display adapter client's log tag and mask, shared by the loader and the wrapper; a wrapper's
// constructor refreshes the mask. Constant-initialised, because the loader logs while the library
// is being loaded.
#pragma once

#include "platform/LogMask.h"

namespace korvane::display {

inline constexpr char kLogTag[] = "DisplayAdapterWraper";

inline LogMask gLogMask;

}  // namespace korvane::display

// SPDX-License-Identifier: Apache-2.0
// The renderer's log tag and mask, shared by this folder's files because they are one class.
#pragma once

#include "platform/LogMask.h"

namespace korvane {

inline constexpr char kRendererTag[] = "Korvane_VideoTunnelRenderer";

/// Outlives every renderer: a new one logs its first messages under the mask of the one before.
extern LogMask gRendererLog;

}  // namespace korvane

#define RENDERER_LOGI(bit, ...) \
    KORVANE_LOGI(korvane::gRendererLog, bit, korvane::kRendererTag, __VA_ARGS__)
#define RENDERER_LOGD(bit, ...) \
    KORVANE_LOGD(korvane::gRendererLog, bit, korvane::kRendererTag, __VA_ARGS__)
#define RENDERER_LOGE(...) KORVANE_LOGE(korvane::kRendererTag, __VA_ARGS__)

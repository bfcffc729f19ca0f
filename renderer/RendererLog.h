// SPDX-License-Identifier: Apache-2.0
// The renderer's log tag and mask, shared by the files of this folder: they are one class.
#pragma once

#include "platform/LogMask.h"

namespace korvane {

inline constexpr char kRendererTag[] = "Korvane_VideoTunnelRenderer";

/// Outlives every renderer: the first messages of one are under the mask that the last one left.
extern LogMask gRendererLog;

}  // namespace korvane

#define RENDERER_LOGI(bit, ...) \
    KORVANE_LOGI(korvane::gRendererLog, bit, korvane::kRendererTag, __VA_ARGS__)
#define RENDERER_LOGD(bit, ...) \
    KORVANE_LOGD(korvane::gRendererLog, bit, korvane::kRendererTag, __VA_ARGS__)
#define RENDERER_LOGE(...) KORVANE_LOGE(korvane::kRendererTag, __VA_ARGS__)

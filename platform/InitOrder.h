// SPDX-License-Identifier: Apache-2.0
// The order in which the library's process-wide objects are constructed when it is loaded.
//
// Without it the order across source files follows the link order. These are init_priority values:
// the lower one is constructed first and destroyed last, both before every object without a
// priority (65535).
#pragma once

namespace korvane {

enum InitOrder : int {
    kInitVideoTunnelLoader = 65000,
    kInitDisplayAdapterLoader = 65001,
};

}  // namespace korvane

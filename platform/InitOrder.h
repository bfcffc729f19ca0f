// SPDX-License-Identifier: Apache-2.0
// Order in which the library's process-wide objects are built when it is loaded.
//
// The order of initialisers in different source files otherwise follows the link order. These are
// init_priority values: lower is built first and destroyed last; both are built before every object
// without a priority (65535).
#pragma once

namespace korvane {

enum InitOrder : int {
    kInitVideoTunnelLoader = 65000,
    kInitDisplayAdapterLoader = 65001,
};

}  // namespace korvane

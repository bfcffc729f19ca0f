// SPDX-License-Identifier: Apache-2.0
// The switch to another fiber: Boost.Context's, called so that the processor foresees the returns
// that follow it.
//
// A processor predicts where a function returns to by the calls that it has seen. On x86-64
// jump_fcontext is called but left by a jump, so after it every prediction is off by one, and each
// return up to the program's own code costs some 15 cycles, more than the switch itself. Entered by
// a jump as well it leaves the predictions in order; and where the fiber before called from the
// same places, as threads that poll do, they are even right. On AArch64 it returns as it was
// called.
#pragma once

#include <boost/context/detail/fcontext.hpp>

namespace korvane::tv {

#ifdef __x86_64__
/// As jump_fcontext.
extern "C" __attribute__((visibility("hidden"))) boost::context::detail::transfer_t
korvane_switch_fiber(boost::context::detail::fcontext_t to, void* data);
#else
inline boost::context::detail::transfer_t korvane_switch_fiber(
    boost::context::detail::fcontext_t to, void* data) {
    return boost::context::detail::jump_fcontext(to, data);
}
#endif

}  // namespace korvane::tv

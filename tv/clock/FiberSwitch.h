// SPDX-License-Identifier: Apache-2.0
// The switch to another fiber: Boost.Context's jump_fcontext, entered so that the processor's
// return predictions stay valid.
//
// A processor predicts return addresses from the calls it has seen. On x86-64 jump_fcontext is
// called but leaves by a jump, so that every prediction after it is off by one, and each return up
// to the program's own code costs some 15 cycles, more than the switch itself. Here it is entered
// by a jump, too. On AArch64 it leaves by a return.
//
// Measured, with and without: two switches 56 and 86 ns, a day of an idle renderer 13.5 and 17.6 s,
// a minute of 64 renderers 0.62 and 0.91 s; scenarios/soak-24h.toml, with one renderer that plays,
// runs at the same speed.
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

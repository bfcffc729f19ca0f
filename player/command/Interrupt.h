// SPDX-License-Identifier: Apache-2.0
// SIGINT (Ctrl-C) and SIGTERM while a file plays. The first one asks playback to stop, the second
// one kills. Before `catchInterrupts` the first one kills, too: what opens files may block.
#pragma once

namespace korvane::player {

void catchInterrupts();
/// Whether a signal has arrived. Any thread.
bool interrupted();
/// The number of the signal that arrived; 0: none.
int interruptingSignal();

}  // namespace korvane::player

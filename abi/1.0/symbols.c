// SPDX-License-Identifier: Apache-2.0
// The names that a player of version 1.0 links against, standing in for that library when it is
// linked: what of them a later library lacks is found out when the player runs, as on a device.
#define SYMBOL(name) \
    void name(void) {}

SYMBOL(VideoTunnelRenderer_create)
SYMBOL(_ZN19VideoTunnelRenderer14getRealTimeForElPl)
SYMBOL(_ZN19VideoTunnelRenderer15updateVideoTimeEl)
SYMBOL(_ZN19VideoTunnelRenderer16nodifyRenderTimeEv)
SYMBOL(_ZN19VideoTunnelRenderer16onFillVideoFrameEib)
SYMBOL(_ZN19VideoTunnelRenderer17getTrackMediaTimeEPl)
SYMBOL(_ZN19VideoTunnelRenderer20getStartingTimeMediaEPl)
SYMBOL(_ZN19VideoTunnelRenderer21getNeedFillVideoFrameEPi)

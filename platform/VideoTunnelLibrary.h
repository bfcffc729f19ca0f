// SPDX-License-Identifier: Apache-2.0
// The video tunnel library's entry points that this library calls.
//
// libvideotunnel.so is opened by name at run time: these declarations give the resolved pointers
// their types and are never linked against. `device` is the handle from tovak_vt_open. A result
// below 0 is a failure; open, alloc_id and free_id leave the reason in errno.
#pragma once

#include <cstdint>

extern "C" {

/// @return device handle
int tovak_vt_open();
int tovak_vt_close(int device);
/// @param tunnelId  written on success
int tovak_vt_alloc_id(int device, int* tunnelId);
int tovak_vt_free_id(int device, int tunnelId);
/// @param role  0, the producer
int tovak_vt_connect(int device, int tunnelId, int role);
int tovak_vt_disconnect(int device, int tunnelId, int role);
/// @param acquireFenceFd  -1 for none
int tovak_vt_queue_buffer(int device, int tunnelId, int bufferFd, int acquireFenceFd,
                          int64_t presentationTime);
/// Fails when no buffer can be given now.
/// @param fenceFd  receives the release fence, which the caller then owns
int tovak_vt_dequeue_buffer(int device, int tunnelId, int* bufferFd, int* fenceFd);
int tovak_vt_send_cmd(int device, int tunnelId, int command, int argument);
/// Time of the last vsync and its period, nanoseconds.
int tovak_vt_getDisplayVsyncAndPeroid(int device, int tunnelId, int64_t* vsyncTimestamp,
                                      int32_t* vsyncPeriod);

}  // extern "C"

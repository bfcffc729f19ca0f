// SPDX-License-Identifier: Apache-2.0
// Faults in what the library calls: tunnel, media sync, display adapter, properties, fences, the
// dynamic loader, threads, memory. Each of these calls passes a hook that counts it and, in a
// faulty playback, lets it fail. The library itself is the unmodified one.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace korvane::test {

// clang-format off
// What the library calls.
#define KORVANE_TUNNEL_POINTS(X) \
    X(open) X(close) X(alloc_id) X(free_id) X(connect) X(disconnect) X(queue_buffer) \
    X(dequeue_buffer) X(send_cmd) X(tunnelVsync)
#define KORVANE_SYNC_POINTS(X) \
    X(setPlayerInsNumber) X(allocInstance) X(bindInstance) X(setSyncMode) X(getSyncMode) \
    X(setPause) X(getPause) X(updateAnchor) X(getMediaTime) X(getRealTimeFor) \
    X(getRealTimeForNextVsync) X(reset) X(getTrackMediaTime) X(getStartingTimeMedia) \
    X(setUpdateTimeThreshold) X(getUpdateTimeThreshold) X(setParameter) X(getParameter) \
    X(queueVideoFrame) X(VideoProcess)
#define KORVANE_OTHER_POINTS(X) \
    X(createRemote) X(destroyRemote) X(remoteVsync) X(property_get) X(fenceWait) X(fcntl) X(fstat) \
    X(dlopen) X(dlsym) X(dlclose) X(pthread_create) X(pthread_join) X(sched_setscheduler) \
    X(memory)
#define KORVANE_POINTS(X) KORVANE_TUNNEL_POINTS(X) KORVANE_SYNC_POINTS(X) KORVANE_OTHER_POINTS(X)

// How a call goes wrong.
//   Error             fails without an effect
//   ErrorAfterEffect  does its work and reports a failure
//   ErrorWithGarbage  fails and has written its outputs
//   Lowest, Highest,  "succeeds" with such values in its outputs or, if it has none, as its result
//   Random
//   Slow, Late        takes 30 or 400 ms
//   Never             returns, with a failure, only when the player stops, 5 s later at the latest
//   Absent            the tunnel's library does not have it
#define KORVANE_HOWS(X) \
    X(Error) X(ErrorAfterEffect) X(ErrorWithGarbage) X(Lowest) X(Highest) X(Random) X(Slow) \
    X(Late) X(Never) X(Absent)

// clang-format on

#define KORVANE_ENUMERATOR(name) name,
namespace point {
enum Point { KORVANE_POINTS(KORVANE_ENUMERATOR) kCount };
}  // namespace point
using point::Point;
enum class How { KORVANE_HOWS(KORVANE_ENUMERATOR) };
#undef KORVANE_ENUMERATOR

/// The calls `from` to `to` of a point fail, counted from 1.
struct Fault {
    Point point;
    How how;
    int from = 1;
    int to = std::numeric_limits<int>::max();
};
std::string toString(const Fault& fault);

const char* nameOf(Point point);

/// In which ways a point can fail; in none if its calls are only counted.
std::vector<How> waysToFail(Point point);
/// Whether each single call is to fail in turn, not only the first and the tenth.
bool isSwept(Point point);

/// One playback's faults and what came of them; one at a time.
struct FaultyRun {
    /// Call it in virtual time.
    FaultyRun(std::vector<Fault> faultsOfRun, uint64_t seed);
    ~FaultyRun();
    FaultyRun(const FaultyRun&) = delete;
    FaultyRun& operator=(const FaultyRun&) = delete;

    const std::vector<Fault> faults;
    std::mt19937_64 random;
    bool stopping = false;  ///< set when the player stops
    bool over = false;      ///< nothing fails any more
    std::array<int, point::kCount> calls{};
    std::array<int, point::kCount> struck{};
    int64_t livePieces = 0;         ///< of memory that the library has allocated
    std::set<int> offeredToTunnel;  ///< buffers, whether or not the tunnel took them
};

/// Redirects the library's imports to the hooks.
/// @return what the library imports and no hook covers, empty when all is well
std::string installHooks();

}  // namespace korvane::test

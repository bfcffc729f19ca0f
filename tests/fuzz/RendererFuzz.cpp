// SPDX-License-Identifier: Apache-2.0
// Bytes as random players of the renderer library: in virtual time, or in real time in builds with
// a sanitizer. Beside what the Feeder checks, the process has no descriptor left.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>

#include "player/explore/Feeder.h"
#include "tests/fuzz/FuzzTarget.h"
#include "tests/fuzz/PlayerProgram.h"
#include "tv/clock/VirtualTime.h"

namespace {

using namespace korvane;

/// Nobody adds up for how long the seed keeps threads away.
class Watch final : public player::FeederWatch {
public:
    explicit Watch(const test::RandomPlayer& random) : mPreempts(random.preemptions > 0) {}
    int64_t awayNs() const override {
        constexpr int64_t kPreemptedNs = 50'000'000;
        constexpr int64_t kRealNs = int64_t{3600} * 1'000'000'000;
        return !tv::VirtualTime::available() ? kRealNs : mPreempts ? kPreemptedNs : 0;
    }

private:
    const bool mPreempts;
};

std::unique_ptr<tv::VirtualTime> virtualTimeOf(const test::RandomPlayer& random) {
    if (!tv::VirtualTime::available()) {
        return nullptr;
    }
    tv::VirtualTimeOptions options;
    options.preemptions = random.preemptions;
    options.longestPreemptionNs = random.longestPreemptionNs;
    options.spuriousWakeups = random.spuriousWakeups;
    options.longestRunNs = random.program.longestUs * 1000;
    options.onHang = [&random](const std::string& report) {
        test::endIfAny({{"hang", report}}, random);
    };
    return std::make_unique<tv::VirtualTime>(random.seed, options);
}

std::set<int> openDescriptors() {
    constexpr int kMostDescriptors = 512;
    std::set<int> open;
    for (int fd = 0; fd < kMostDescriptors; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            open.insert(fd);
        }
    }
    return open;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static player::FeederBuffers buffers(test::kAllBuffers);
    const test::RandomPlayer random = test::decodePlayer(data, size);
    test::setLogging(random);
    Watch watch(random);
    std::vector<player::Fault> faults;
    const std::set<int> before = openDescriptors();
    {
        const auto virtualTime = virtualTimeOf(random);
        faults = player::playProgram(random.program, buffers, watch);
    }
    for (const int fd : openDescriptors()) {
        if (before.count(fd) != 0) {
            continue;
        }
        close(fd);
        // A descriptor that is no fence stays open.
        if (!hasFault(random.program, [](const auto& now) { return now.tunnel.fenceWrongMode; })) {
            faults.push_back({"a descriptor is left open", std::to_string(fd)});
        }
    }
    test::endIfAny(faults, random);
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Data from a pipe, as it comes, for FFmpeg to read.
//
// A wait for data ends when playback is interrupted, or has lasted as long as the rest of what is
// to be played. It takes real time, also in virtual time: the running thread waits in the kernel,
// and with it all others, so that no simulated time passes and playback is the same however slow
// the writer is.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct AVIOContext;

namespace korvane::player {

class PipeInput {
public:
    /// @param name  of the pipe; "-" and the like: standard input
    /// @param patienceUs  how long the next wait for data may last; then the input has ended
    /// @throws InputError
    PipeInput(const std::string& name, std::function<bool()> interrupted,
              std::function<int64_t()> patienceUs);
    ~PipeInput();
    PipeInput(const PipeInput&) = delete;
    PipeInput& operator=(const PipeInput&) = delete;

    AVIOContext* context() const { return mContext; }
    bool nothingCame() const { return !mSomethingCame; }
    /// It ended because data did not come in time.
    bool fellSilent() const { return mFellSilent; }

private:
    static int read(void* self, uint8_t* data, int bytes);

    const std::function<bool()> mInterrupted;
    const std::function<int64_t()> mPatienceUs;
    int mFd = -1;
    bool mOwned = false;
    bool mSomethingCame = false;
    bool mFellSilent = false;
    AVIOContext* mContext = nullptr;
};

}  // namespace korvane::player

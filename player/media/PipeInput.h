// SPDX-License-Identifier: Apache-2.0
// Data from a pipe, as it comes, for FFmpeg to read.
//
// A wait for data ends when playback is interrupted. It is a wait of the real world: in virtual
// time, too, the thread that runs waits in the kernel, and with it all others, so that no simulated
// time goes by and a playback is the same however slow the writer is.
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
    /// @throws InputError
    PipeInput(const std::string& name, std::function<bool()> interrupted);
    ~PipeInput();
    PipeInput(const PipeInput&) = delete;
    PipeInput& operator=(const PipeInput&) = delete;

    AVIOContext* context() const { return mContext; }
    bool nothingCame() const { return !mSomethingCame; }

private:
    static int read(void* self, uint8_t* data, int bytes);

    const std::function<bool()> mInterrupted;
    int mFd = -1;
    bool mOwned = false;
    bool mSomethingCame = false;
    AVIOContext* mContext = nullptr;
};

}  // namespace korvane::player

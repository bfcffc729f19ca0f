// SPDX-License-Identifier: Apache-2.0
// Plays a stream of audio packets against a sync instance: the audio model (see AudioModel.h) with
// a thread of its own, on the platform's monotonic clock. The thread steps the model when the model
// asks for it and after every operation, and sleeps in between.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tv/AudioModel.h"

namespace korvane::tv {

/// Owns one thread from construction to `stop`. Operations may be called from any thread.
class AudioOutput {
public:
    AudioOutput(std::shared_ptr<SyncInstance> instance, const AudioConfig& config);
    ~AudioOutput();
    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    /// Hands in one packet; never blocks.
    void queue(int64_t mediaTimeUs, int64_t durationUs);
    void endOfStream();
    void pause();
    void resume();
    /// Drops what is buffered and waits for a new start (seek). Leaves the clock as it is.
    void flush();
    /// As `AudioConfig::driftPpm`, from now on.
    void setDriftPpm(double driftPpm);
    /// Ends the thread and leaves the clock as it is. Idempotent.
    void stop();

    AudioReport report() const;
    /// What was audible until now.
    SoundRecord sound() const;
    /// State in words, for people.
    std::string dump() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace korvane::tv

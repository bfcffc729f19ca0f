// SPDX-License-Identifier: Apache-2.0
#include "player/screen/Window.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>

#include "player/screen/BitmapFont.h"
#include "player/screen/Canvas.h"
#include "player/screen/DeviceClock.h"
#include "player/screen/HeardSound.h"
#include "tv/ScopedLock.h"
#include "tv/Tv.h"
#include "tv/UniqueFd.h"
#ifdef KORVANE_SDL
#include "player/screen/Sdl.h"
#endif

namespace korvane::player {

#ifdef KORVANE_SDL

namespace {

/// Larger pictures are scaled down before they are drawn.
constexpr int kWidestDrawn = 1920;
/// The window at first, if the film is larger.
constexpr int kFirstWidth = 1280;
/// From this height on, films use BT.709.
constexpr int kHdHeight = 720;
/// Not a divisor of a device's block or of a vsync, so that polls of the device fall anywhere in a
/// block.
constexpr auto kEventInterval = std::chrono::milliseconds(7);
/// How far ahead the device is fed, in samples: two vsyncs and the device's own buffer.
constexpr int64_t kLeadSamples = kSoundHz * 60 / 1000;
/// A whole number of milliseconds, so that drivers that sleep between blocks keep time.
constexpr int kDeviceSamples = kSoundHz * 10 / 1000;
constexpr int64_t kSampleBytes = sizeof(float) * kSoundChannels;
constexpr int64_t kArrowUs = 5'000'000;
constexpr int64_t kFarArrowUs = 60'000'000;

/// Silences what drivers print while they are loaded; the window says in one line what is wrong.
/// Nothing else writes meanwhile.
class QuietErrors {
public:
    QuietErrors() : mSaved(dup(STDERR_FILENO)) {
        const tv::UniqueFd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDERR_FILENO);
    }
    ~QuietErrors() { dup2(mSaved.get(), STDERR_FILENO); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;

private:
    const tv::UniqueFd mSaved;
};

int evenShare(int side, double scale) {
    return std::max(static_cast<int>(side * scale) & ~1, 2);
}

std::optional<RemoteKey> remoteKey(const SDL_Event& event) {
    using Kind = RemoteKey::Kind;
    if (event.type == SDL_QUIT) {
        return RemoteKey{Kind::Quit};
    }
    if (event.type != SDL_KEYDOWN) {
        return std::nullopt;
    }
    switch (event.key.keysym.sym) {
        case SDLK_SPACE:
            return RemoteKey{Kind::Pause};
        case SDLK_PERIOD:
            return RemoteKey{Kind::Step};
        case SDLK_LEFT:
            return RemoteKey{Kind::Seek, -kArrowUs};
        case SDLK_RIGHT:
            return RemoteKey{Kind::Seek, kArrowUs};
        case SDLK_DOWN:
            return RemoteKey{Kind::Seek, -kFarArrowUs};
        case SDLK_UP:
            return RemoteKey{Kind::Seek, kFarArrowUs};
        case SDLK_q:
        case SDLK_ESCAPE:
            return RemoteKey{Kind::Quit};
        default:
            return std::nullopt;
    }
}

}  // namespace

/// SDL wants one thread for windows and events: everything of it happens on the window's.
class Window::Impl {
public:
    Impl(const WindowSpec& spec, Remote* remote)
        : mSpec(spec),
          mRemote(*remote),
          mScale(std::min(1.0, static_cast<double>(kWidestDrawn) / spec.width)),
          mCanvas(evenShare(spec.width, mScale), evenShare(spec.height, mScale), spec.turnDegrees) {
        std::promise<void> opened;
        auto result = opened.get_future();
        mThread = std::thread([this, &opened] { run(&opened); });
        try {
            result.get();
        } catch (...) {
            mThread.join();
            throw;
        }
    }
    ~Impl() { stop(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void stop() {
        {
            const std::lock_guard<std::mutex> guard(mLock);
            mStopping = true;
        }
        mWake.notify_one();
        if (mThread.joinable()) {
            mThread.join();
        }
    }

    void show(const ScreenMoment& moment, const tv::SoundRecord& sound) {
        mLive.onVsync(moment, sound);
        {
            const std::lock_guard<std::mutex> guard(mLock);
            mNewest = moment;
            mSound = sound;
        }
        mWake.notify_one();
    }

    void update(const PlaybackProgress& progress) {
        const std::lock_guard<std::mutex> guard(mLock);
        mProgress = progress;
    }

    std::string soundFailure() const { return mSoundFailure; }

private:
    void run(std::promise<void>* opened) {
        try {
            mSdl = &loadSdl();
            open();
        } catch (...) {
            close();
            opened->set_exception(std::current_exception());
            return;
        }
        opened->set_value();
        while (passKeysOn(), awaitMoment()) {
        }
        close();
    }

    void open() {
        const QuietErrors quiet;
        mSdl->SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        mSdl->SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
        if (mSdl->Init(SDL_INIT_VIDEO) != 0 || !hasDisplay()) {
            throw std::runtime_error("no display");
        }
        const AVFrame& frame = mCanvas.frame();
        const double scale = std::min(1.0, static_cast<double>(kFirstWidth) / frame.width);
        mWindow = mSdl->CreateWindow(mSpec.title.c_str(), SDL_WINDOWPOS_CENTERED,
                                     SDL_WINDOWPOS_CENTERED, evenShare(frame.width, scale),
                                     evenShare(frame.height, scale), SDL_WINDOW_RESIZABLE);
        check(mWindow != nullptr);
        mRenderer = mSdl->CreateRenderer(mWindow, -1, 0);
        check(mRenderer != nullptr);
        mSdl->SetYUVConversionMode(frame.height >= kHdHeight ? SDL_YUV_CONVERSION_BT709
                                                             : SDL_YUV_CONVERSION_BT601);
        mSdl->RenderSetLogicalSize(mRenderer, frame.width, frame.height);
        mTexture = mSdl->CreateTexture(mRenderer, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING,
                                       frame.width, frame.height);
        check(mTexture != nullptr);
        if (mSpec.sound) {
            openSound();
        }
    }

    /// Without a display SDL draws into memory that nobody sees.
    bool hasDisplay() const {
        const std::string driver = mSdl->GetCurrentVideoDriver();
        return driver != "offscreen" && driver != "dummy" && driver != "evdev";
    }

    void check(bool good) const {
        if (!good) {
            throw std::runtime_error(mSdl->GetError());
        }
    }

    void openSound() {
        SDL_AudioSpec wanted{};
        wanted.freq = kSoundHz;
        wanted.format = AUDIO_F32SYS;
        wanted.channels = kSoundChannels;
        wanted.samples = kDeviceSamples;
        if (mSdl->InitSubSystem(SDL_INIT_AUDIO) == 0) {
            mDevice = mSdl->OpenAudioDevice(nullptr, 0, &wanted, nullptr, 0);
        }
        if (mDevice == 0) {
            mSoundFailure = mSdl->GetError();
            return;
        }
        mSdl->PauseAudioDevice(mDevice, 0);
    }

    void close() {
        if (mSdl == nullptr) {
            return;
        }
        if (mDevice != 0) {
            mSdl->CloseAudioDevice(mDevice);
        }
        if (mTexture != nullptr) {
            mSdl->DestroyTexture(mTexture);
        }
        if (mRenderer != nullptr) {
            mSdl->DestroyRenderer(mRenderer);
        }
        if (mWindow != nullptr) {
            mSdl->DestroyWindow(mWindow);
        }
        mSdl->Quit();
    }

    void passKeysOn() {
        SDL_Event event;
        while (mSdl->PollEvent(&event) != 0) {
            if (event.type == SDL_KEYDOWN && event.key.keysym.sym == SDLK_i) {
                mOverlay = !mOverlay;
            } else if (const auto key = remoteKey(event)) {
                mRemote.press(*key);
            }
        }
    }

    /// Shows the newest vsync, if one comes before the next check for keys.
    /// @return false at the end
    bool awaitMoment() {
        std::optional<ScreenMoment> moment;
        tv::SoundRecord sound;
        PlaybackProgress progress;
        {
            tv::WaitLock lock(mLock);
            mWake.wait_for(lock.forWait(), kEventInterval, [this]() KORVANE_REQUIRES(mLock) {
                return mStopping || mNewest.has_value();
            });
            if (mStopping) {
                return false;
            }
            std::swap(moment, mNewest);
            std::swap(sound, mSound);
            progress = mProgress;
        }
        if (mDevice != 0) {
            followDevice();
        }
        if (moment) {
            if (mDevice != 0) {
                feedSound(sound);
            }
            draw(*moment, progress);
        }
        return true;
    }

    void draw(const ScreenMoment& moment, const PlaybackProgress& progress) {
        const AVFrame& frame = mCanvas.frame();
        const Area all{0, 0, frame.width, frame.height};
        if (moment.picture) {
            mCanvas.picture(*moment.picture, all);
        } else if (moment.frameNo >= 0) {
            mCanvas.testPicture(moment.frameNo, all);
        } else {
            mCanvas.fill(all, kBlack);
        }
        if (mOverlay) {
            drawFigures(progress);
        }
        mSdl->UpdateYUVTexture(mTexture, nullptr, frame.data[0], frame.linesize[0], frame.data[1],
                               frame.linesize[1], frame.data[2], frame.linesize[2]);
        mSdl->RenderClear(mRenderer);
        mSdl->RenderCopy(mRenderer, mTexture, nullptr, nullptr);
        mSdl->RenderPresent(mRenderer);
    }

    void drawFigures(const PlaybackProgress& progress) {
        constexpr int kColumns = 46;
        constexpr int kRow = kGlyphHeight + 3;
        const AVFrame& frame = mCanvas.frame();
        const int scale = std::max(frame.width / (2 * kColumns * kGlyphStep), 1);
        const auto lines = liveLines(mLive.figures(), progress, kColumns);
        const int height = (static_cast<int>(lines.size()) * kRow + 3) * scale;
        mCanvas.fill({0, 0, std::min(frame.width, kColumns * kGlyphStep * scale) & ~1,
                      std::min(frame.height, height) & ~1},
                     kBlack);
        for (size_t i = 0; i < lines.size(); ++i) {
            mCanvas.text(3 * scale, (3 + static_cast<int>(i) * kRow) * scale, scale, lines[i]);
        }
    }

    int64_t queuedSamples() const { return mSdl->GetQueuedAudioSize(mDevice) / kSampleBytes; }

    /// Has the TV's audio keep the device's time.
    void followDevice() {
        const int64_t nowNs = tv::nowNs();
        const int64_t queued = queuedSamples();
        if (queued > 0 && mDeviceClock.see(nowNs, mFed - queued)) {
            mRemote.setDeviceDriftPpm(mDeviceClock.driftPpm());
        }
    }

    /// Fills the device's queue up to `kLeadSamples`. A device that ran dry goes on with what is
    /// audible now.
    void feedSound(const tv::SoundRecord& sound) {
        const int64_t nowNs = tv::nowNs();
        int64_t queued = queuedSamples();
        if (queued == 0 || mDeviceClock.lost(nowNs, mFed - queued)) {
            mSdl->ClearQueuedAudio(mDevice);
            mDeviceClock.restart(nowNs);
            queued = 0;
            mFed = 0;
        }
        const int64_t count = kLeadSamples - queued;
        if (count > 0) {
            const auto heard = heardSound(sound, *mSpec.sound, mDeviceClock.times(), mFed, count);
            mSdl->QueueAudio(mDevice, heard.data(), static_cast<Uint32>(count * kSampleBytes));
            mFed += count;
        }
    }

    const WindowSpec mSpec;
    Remote& mRemote;
    LiveView mLive;
    std::thread mThread;

    // the window's thread
    const double mScale;
    Canvas mCanvas;
    const Sdl* mSdl = nullptr;
    SDL_Window* mWindow = nullptr;
    SDL_Renderer* mRenderer = nullptr;
    SDL_Texture* mTexture = nullptr;
    SDL_AudioDeviceID mDevice = 0;
    bool mOverlay = false;
    DeviceClock mDeviceClock;
    int64_t mFed = 0;           ///< samples since the device began or went on
    std::string mSoundFailure;  ///< set before the constructor returns

    std::mutex mLock;
    std::condition_variable mWake;
    bool mStopping KORVANE_GUARDED_BY(mLock) = false;
    std::optional<ScreenMoment> mNewest KORVANE_GUARDED_BY(mLock);
    tv::SoundRecord mSound KORVANE_GUARDED_BY(mLock);
    PlaybackProgress mProgress KORVANE_GUARDED_BY(mLock);
};

Window::Window(const WindowSpec& spec, Remote* remote)
    : mImpl(std::make_unique<Impl>(spec, remote)) {}

void Window::onVsync(const ScreenMoment& moment, const tv::SoundRecord& sound) {
    mImpl->show(moment, sound);
}

void Window::onScreenEnd(const tv::SoundRecord& /*sound*/) {
    mImpl->stop();
}

void Window::update(const PlaybackProgress& progress) {
    mImpl->update(progress);
}

std::string Window::soundFailure() const {
    return mImpl->soundFailure();
}

#else

class Window::Impl {};

Window::Window(const WindowSpec& /*spec*/, Remote* /*remote*/) {
    throw std::runtime_error("this build shows none; install libsdl2-dev and build again");
}
void Window::onVsync(const ScreenMoment& /*moment*/, const tv::SoundRecord& /*sound*/) {}
void Window::onScreenEnd(const tv::SoundRecord& /*sound*/) {}
void Window::update(const PlaybackProgress& /*progress*/) {}
std::string Window::soundFailure() const {
    return "";
}

#endif

Window::~Window() = default;

}  // namespace korvane::player

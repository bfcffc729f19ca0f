// SPDX-License-Identifier: Apache-2.0
#include "tests/faults/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <ui/Fence.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <type_traits>

#include "display/DisplayAdapterOps.h"
#include "platform/DisplayAdapterRemote.h"
#include "platform/MediaSync.h"
#include "tests/faults/Imports.h"
#include "videotunnel/VideoTunnelOps.h"

namespace korvane::test {
namespace {

constexpr int kPropertyBytes = 92;
constexpr int kSlowUs = 30'000;
constexpr int kLateUs = 400'000;
constexpr int kNeverPollUs = 1000;
constexpr int kNeverPolls = 5000;

FaultyRun* gRun = nullptr;

/// Counts a call.
/// @return its fault, or null
const Fault* strike(Point point) {
    if (gRun == nullptr || gRun->over) {
        return nullptr;
    }
    const int call = ++gRun->calls[point];
    for (const Fault& fault : gRun->faults) {
        if (fault.point == point && fault.from <= call && call <= fault.to) {
            ++gRun->struck[point];
            return &fault;
        }
    }
    return nullptr;
}

template <typename Value>
Value garbage(How how) {
    using Limits = std::numeric_limits<Value>;
    return how == How::Lowest    ? Limits::lowest()
           : how == How::Highest ? Limits::max()
                                 : static_cast<Value>(gRun->random());
}

/// Overwrites an argument if it is an output.
/// @return 1 if it is, else 0
template <typename Argument>
int spoil(How how, Argument argument) {
    if constexpr (std::is_same_v<Argument, bool*>) {
        *argument = garbage<int>(how) > 0;
    } else if constexpr (std::is_same_v<Argument, int*> || std::is_same_v<Argument, long*>) {
        *argument = garbage<std::remove_pointer_t<Argument>>(how);
    } else if constexpr (std::is_same_v<Argument, sync_mode*>) {
        *argument = static_cast<sync_mode>(garbage<int>(how));
    } else if constexpr (std::is_same_v<Argument, mediasync_video_policy*>) {
        const int any = garbage<int>(how);
        argument->videopolicy = how == How::Random ? any & 7 : any;
        argument->realtimeUs = garbage<long>(how);
    } else if constexpr (std::is_same_v<Argument, struct stat*>) {
        std::memset(argument, how == How::Lowest ? 0 : 0xff, sizeof(*argument));
    } else if constexpr (std::is_same_v<Argument, char*>) {  // a property's value
        for (int i = 0; i < kPropertyBytes - 1; ++i) {
            argument[i] = how == How::Random ? static_cast<char>(gRun->random() % 255 + 1) : '9';
        }
        argument[0] = how == How::Lowest ? '-' : argument[0];
        argument[kPropertyBytes - 1] = '\0';
    } else {
        return 0;
    }
    return 1;
}

// What the library cannot give back because the failed call has hidden it from the library.
template <typename... Arguments>
void giveBack(Arguments... /*arguments*/) {}
void giveBack(int /*device*/, int /*tunnelId*/, int* /*bufferFd*/, int* fenceFd) {
    close(*fenceFd);
}

template <Point kPoint, typename Signature>
struct Hook;
template <Point kPoint, typename Result, typename... Arguments>
struct Hook<kPoint, Result(Arguments...)> {
    static inline Result (*original)(Arguments...) = nullptr;
    static inline long failure = -1;

    static Result call(Arguments... arguments) {
        if constexpr (kPoint == point::queue_buffer) {
            const int buffer[] = {static_cast<int>(arguments)...};
            gRun->offeredToTunnel.insert(buffer[2]);
        }
        const Fault* const fault = strike(kPoint);
        if (fault == nullptr) {
            return original(arguments...);
        }
        const How how = fault->how;
        if (how == How::Slow || how == How::Late) {
            usleep(how == How::Slow ? kSlowUs : kLateUs);
            return original(arguments...);
        }
        if (how == How::Lowest || how == How::Highest || how == How::Random) {
            return garbageResult(how, (0 + ... + spoil(how, arguments)));
        }
        if (how == How::ErrorAfterEffect) {
            original(arguments...);
            giveBack(arguments...);
        } else if (how == How::ErrorWithGarbage) {
            (spoil(How::Random, arguments), ...);
        }
        for (int i = 0; how == How::Never && i < kNeverPolls && !gRun->stopping; ++i) {
            usleep(kNeverPollUs);
        }
        errno = EIO;
        if constexpr (std::is_pointer_v<Result>) {
            return nullptr;
        } else {
            return static_cast<Result>(failure);
        }
    }

    static Result garbageResult(How how, int outputs) {
        if constexpr (kPoint == point::property_get) {
            return kPropertyBytes - 1;
        } else if constexpr (std::is_same_v<Result, int>) {
            return outputs > 0 ? 0 : garbage<int>(how);
        } else {
            return Result(outputs > 0);
        }
    }
};

struct Import {
    Point point;
    const char* symbol;
    void* hook;
    void** original;
};

template <Point kPoint, typename Signature>
Import importOf(const char* symbol, long failure = -1) {
    using Here = Hook<kPoint, Signature>;
    Here::failure = failure;
    return {kPoint, symbol, reinterpret_cast<void*>(&Here::call),
            reinterpret_cast<void**>(&Here::original)};
}

/// An operation of MediaSync. A pointer to it begins with the function's address.
template <Point kPoint, typename... Arguments>
Import syncImport(int (MediaSync::*operation)(Arguments...)) {
    void* address = nullptr;
    std::memcpy(&address, &operation, sizeof(address));
    Dl_info found{};
    dladdr(address, &found);
    return importOf<kPoint, int(MediaSync*, Arguments...)>(found.dli_sname);
}

std::vector<Import> imports() {
#define KORVANE_SYNC_IMPORT(name) syncImport<point::name>(&MediaSync::name),
    return {
        KORVANE_SYNC_POINTS(KORVANE_SYNC_IMPORT)
            importOf<point::property_get, int(const char*, char*, const char*)>("property_get", 0),
        importOf<point::fenceWait, int(android::Fence*, int)>("_ZN7android5Fence4waitEi", -ETIME),
        importOf<point::fcntl, int(int, int)>("fcntl"),
        importOf<point::fstat, int(int, struct stat*)>("fstat"),
        importOf<point::dlopen, void*(const char*, int)>("dlopen"),
        importOf<point::dlsym, void*(void*, const char*)>("dlsym"),
        importOf<point::dlclose, int(void*)>("dlclose"),
        importOf<point::pthread_create, int(pthread_t*, const pthread_attr_t*, void* (*)(void*),
                                            void*)>("pthread_create", EAGAIN),
        importOf<point::pthread_join, int(pthread_t, void**)>("pthread_join"),
        importOf<point::sched_setscheduler, int(pid_t, int, const sched_param*)>(
            "sched_setscheduler"),
    };
}

// Memory is counted, too.
using NewHook = Hook<point::memory, void*(size_t, const std::nothrow_t&)>;
void* newCounted(size_t bytes, const std::nothrow_t& tag) {
    void* const memory = NewHook::call(bytes, tag);
    if (gRun != nullptr && memory != nullptr) {
        ++gRun->livePieces;
    }
    return memory;
}
void deleteCounted(void* memory) {
    if (gRun != nullptr && memory != nullptr) {
        --gRun->livePieces;
    }
    ::operator delete(memory);
}
void deleteSizedCounted(void* memory, size_t /*bytes*/) {
    deleteCounted(memory);
}

using CreateHook = Hook<point::createRemote, DisplayAdapterRemote*()>;
using DestroyHook = Hook<point::destroyRemote, void(DisplayAdapterRemote*)>;
using RemoteVsyncHook = Hook<point::remoteVsync, bool(DisplayAdapterRemote*, int64_t*, int32_t*)>;

/// The display's remote object, with a query that can fail.
class FaultyRemote final : public DisplayAdapterRemote {
public:
    explicit FaultyRemote(DisplayAdapterRemote* real) : mReal(real) {}
    void slot0() override {}
    void slot1() override {}
    void slot2() override {}
    void slot3() override {}
    void slot4() override {}
    void slot5() override {}
    void slot6() override {}
    void slot7() override {}
    void slot8() override {}
    void slot9() override {}
    void slot10() override {}
    bool getDisplayVsyncAndPeriod(int64_t* timestampNs, int32_t* periodNs) override {
        return RemoteVsyncHook::call(mReal, timestampNs, periodNs);
    }
    static bool ask(DisplayAdapterRemote* real, int64_t* timestampNs, int32_t* periodNs) {
        return real->getDisplayVsyncAndPeriod(timestampNs, periodNs);
    }
    static DisplayAdapterRemote* create() {
        DisplayAdapterRemote* const real = CreateHook::call();
        return real == nullptr ? nullptr : new FaultyRemote(real);
    }
    static void destroy(DisplayAdapterRemote* remote) {
        auto* const faulty = static_cast<FaultyRemote*>(remote);
        DestroyHook::call(faulty->mReal);
        delete faulty;
    }

private:
    DisplayAdapterRemote* const mReal;
};

/// Puts a hook in front of an entry point that was resolved by name, or, without one, restores it.
template <typename EntryPoint>
void swap(EntryPoint* hook, EntryPoint** original, EntryPoint** slot) {
    if (hook == nullptr) {
        *slot = *original;
        return;
    }
    *original = *slot;
    *slot = *slot == nullptr ? nullptr : hook;
}
template <Point kPoint, typename Signature>
void swapTunnel(bool hooked, Signature** slot) {
    using Here = Hook<kPoint, Signature>;
    swap(hooked ? &Here::call : nullptr, &Here::original, slot);
    for (const Fault& fault : gRun->faults) {
        if (hooked && fault.point == kPoint && fault.how == How::Absent) {
            *slot = nullptr;
            ++gRun->struck[kPoint];
        }
    }
}

void swapResolved(bool hooked) {
    videotunnel_ops& tunnel = gVideoTunnelOps;
    swapTunnel<point::open>(hooked, &tunnel.mOpen);
    swapTunnel<point::close>(hooked, &tunnel.mClose);
    swapTunnel<point::alloc_id>(hooked, &tunnel.mAllocId);
    swapTunnel<point::free_id>(hooked, &tunnel.mFreeId);
    swapTunnel<point::connect>(hooked, &tunnel.mConnect);
    swapTunnel<point::disconnect>(hooked, &tunnel.mDisconnect);
    swapTunnel<point::queue_buffer>(hooked, &tunnel.mQueueBuffer);
    swapTunnel<point::dequeue_buffer>(hooked, &tunnel.mDequeueBuffer);
    swapTunnel<point::send_cmd>(hooked, &tunnel.mSendCmd);
    swapTunnel<point::tunnelVsync>(hooked, &tunnel.mGetDisplayVsyncAndPeroid);
    tovakDisplayAdater_ops& display = gDisplayAdapterOps;
    swap(hooked ? &FaultyRemote::create : nullptr, &CreateHook::original, &display.mCreate);
    swap(hooked ? &FaultyRemote::destroy : nullptr, &DestroyHook::original, &display.mDestroy);
}

bool isLoader(Point point) {
    return point == point::dlopen || point == point::dlsym || point == point::dlclose;
}

/// If the dynamic loader is to fail, or has, opens the libraries that are opened by name again.
void reload() {
    const auto& faults = gRun->faults;
    if (std::any_of(faults.begin(), faults.end(), [](auto& f) { return isLoader(f.point); })) {
        gDisplayAdapterOps.~tovakDisplayAdater_ops();
        gVideoTunnelOps.~videotunnel_ops();
        new (&gVideoTunnelOps) videotunnel_ops;
        new (&gDisplayAdapterOps) tovakDisplayAdater_ops;
    }
}

#define KORVANE_NAME(name) #name,
const char* const kNames[] = {KORVANE_POINTS(KORVANE_NAME)};
const char* const kHowNames[] = {KORVANE_HOWS(KORVANE_NAME)};

}  // namespace

const char* nameOf(Point point) {
    return kNames[point];
}

std::string toString(const Fault& fault) {
    const std::string when =
        fault.to == fault.from ? std::to_string(fault.from) : std::string("always");
    return std::string(nameOf(fault.point)) + " " + kHowNames[static_cast<int>(fault.how)] + " " +
           when;
}

std::vector<How> waysToFail(Point point) {
    switch (point) {
        case point::memory:
        case point::dlopen:
        case point::dlsym:
        case point::dlclose:
        case point::pthread_create:
        case point::sched_setscheduler:
            return {How::Error};
        case point::pthread_join:
            return {};
        case point::createRemote:
            return {How::Error, How::Slow, How::Late, How::Never};
        case point::destroyRemote:
            return {How::Slow, How::Late};
        case point::fcntl:
        case point::fstat:
            return {How::Error, How::Lowest, How::Highest};
        default:
            break;
    }
    std::vector<How> all = {How::Error,
                            How::ErrorAfterEffect,
                            How::ErrorWithGarbage,
                            How::Lowest,
                            How::Highest,
                            How::Random,
                            How::Slow,
                            How::Late,
                            How::Never};
    if (point <= point::tunnelVsync) {
        all.push_back(How::Absent);
    }
    return all;
}

bool isSwept(Point point) {
    return point == point::memory || point == point::pthread_create || isLoader(point);
}

FaultyRun::FaultyRun(std::vector<Fault> faultsOfRun, uint64_t seed)
    : faults(std::move(faultsOfRun)), random(seed) {
    gRun = this;
    reload();
    swapResolved(true);
}

FaultyRun::~FaultyRun() {
    swapResolved(false);
    over = true;
    reload();
    gRun = nullptr;
}

std::string installHooks() {
    Imports library("libkorvane_tunnelrenderer.so");
    std::vector<Import> all = imports();
    all.push_back({point::memory, "_ZnwmRKSt9nothrow_t", reinterpret_cast<void*>(&newCounted),
                   reinterpret_cast<void**>(&NewHook::original)});
    RemoteVsyncHook::original = &FaultyRemote::ask;
    RemoteVsyncHook::failure = 0;
    std::set<std::string> covered = {"_ZN9MediaSyncC1Ev",
                                     "_ZN9MediaSyncD1Ev",
                                     "_ZN7android5FenceC1Ei",
                                     "dlerror",
                                     "_ZdlPv",
                                     "_ZdlPvm"};
    for (const Import& import : all) {
        *import.original = dlsym(RTLD_DEFAULT, import.symbol);
        if (!library.redirect(import.symbol, import.hook)) {
            return std::string("the library does not import ") + import.symbol;
        }
        covered.insert(import.symbol);
    }
    library.redirect("_ZdlPv", reinterpret_cast<void*>(&deleteCounted));
    library.redirect("_ZdlPvm", reinterpret_cast<void*>(&deleteSizedCounted));
    for (const auto& slot : library.slots()) {
        for (const char* family : {"_ZN9MediaSync", "_ZN7android5Fence", "dl", "property_", "_Zn",
                                   "_Zd", "pthread_create", "malloc", "calloc"}) {
            if (slot.first.rfind(family, 0) == 0 && covered.count(slot.first) == 0) {
                return "no fault is injected into " + slot.first;
            }
        }
    }
    return "";
}

}  // namespace korvane::test

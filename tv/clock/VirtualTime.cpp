// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/VirtualTime.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tv/clock/FencePipe.h"
#include "tv/clock/Scheduler.h"
#include "tv/clock/Watchdog.h"

namespace korvane::tv {
namespace {

std::unique_ptr<Watchdog> gWatchdog;

[[noreturn]] void refuse(const std::string& reason) {
    throw std::runtime_error("virtual time cannot begin: " + reason);
}

/// Whether the program's calls resolve to this library.
bool precedesLibc() {
    Dl_info called{};
    Dl_info own{};
    static const bool precedes = dladdr(dlsym(RTLD_DEFAULT, "pthread_mutex_lock"), &called) != 0 &&
                                 dladdr(&gWatchdog, &own) != 0 && called.dli_fbase == own.dli_fbase;
    return precedes;
}

std::vector<std::string> namesOfThreads() {
    std::vector<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::getline(comm, names.emplace_back("?"));
    }
    return names;
}

/// Threads of an emulator that runs the program: they exist before the program creates one.
const size_t kForeignThreads = namesOfThreads().size() - 1;

void requireSingleThread() {
    // The link count of a folder counts its subfolders, so names are read only if there are
    // several.
    struct stat tasks {};
    if (stat("/proc/self/task", &tasks) == 0 && tasks.st_nlink == kForeignThreads + 3) {
        return;
    }
    auto names = namesOfThreads();
    // One that has just been joined may not have left the kernel yet.
    for (int tries = 0; names.size() > kForeignThreads + 1; names = namesOfThreads(), ++tries) {
        if (tries == 100) {
            std::string list;
            for (const auto& name : names) {
                list += (list.empty() ? "" : ", ") + name;
            }
            refuse("the process has " + std::to_string(names.size() - kForeignThreads) +
                   " threads (" + list + "); it must begin before the first one is made");
        }
        usleep(1000);
    }
}

}  // namespace

bool VirtualTime::available() {
    return true;
}

bool VirtualTime::active() {
    return gScheduler != nullptr;
}

int32_t VirtualTime::threadNumber() {
    return gScheduler != nullptr ? gScheduler->current().number : 0;
}

Undisturbed::Undisturbed()
    : mScopes(gScheduler != nullptr ? &gScheduler->current().undisturbed : nullptr) {
    if (mScopes != nullptr) {
        ++*mScopes;
    }
}

Undisturbed::~Undisturbed() {
    if (mScopes != nullptr) {
        --*mScopes;
    }
}

std::string VirtualTime::dump() {
    return gScheduler != nullptr ? gScheduler->dump() : std::string();
}

VirtualTime::VirtualTime(uint64_t seed, const VirtualTimeOptions& options) {
    if (gScheduler != nullptr) {
        refuse("it is already on");
    }
    if (!precedesLibc()) {
        refuse(
            "libkorvane_tv.so must precede libc and libstdc++ among the libraries that the "
            "program is linked with");
    }
    requireSingleThread();
    auto scheduler = std::make_unique<Scheduler>(seed, options);
    gWatchdog = std::make_unique<Watchdog>(options.computeSeconds);
    gScheduler = scheduler.release();
}

VirtualTime::~VirtualTime() {
    if (!gScheduler->aloneAgain()) {
        gScheduler->fail(kThreadsLeft);
    }
    gWatchdog.reset();
    forgetPooledPipes();
    delete std::exchange(gScheduler, nullptr);
}

std::string VirtualTime::run(const std::function<void()>& program) {
    return gScheduler->run(program);
}

const std::string& VirtualTime::failure() const {
    return gScheduler->failure();
}

int64_t VirtualTime::nowNs() const {
    return gScheduler->nowNs();
}

VirtualTimeStatistics VirtualTime::statistics() const {
    return gScheduler->statistics();
}

}  // namespace korvane::tv

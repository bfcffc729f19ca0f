// SPDX-License-Identifier: Apache-2.0
#include "player/command/LibraryChoice.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/report/EventLog.h"

namespace korvane::player {
namespace {

constexpr const char* kFactory = "VideoTunnelRenderer_create";
constexpr const char* kPreload = "LD_PRELOAD";
/// Set for the program's second start: a third would not change anything.
constexpr const char* kStartedAgain = "KORVANE_TV_STARTED_WITH_LIBRARY";
constexpr const char* kThisProgram = "/proc/self/exe";

[[noreturn]] void refuseLibrary(const std::string& path, const std::string& why) {
    throw UsageError("--library " + printable(path) + ": " + why);
}

std::string lastError() {
    return std::error_code(errno, std::generic_category()).message();
}

bool sameFile(const char* left, const std::string& right) {
    struct stat a {};
    struct stat b {};
    return stat(left, &a) == 0 && stat(right.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

/// What a file says of itself: the first bytes of every ELF file are laid out alike.
bool readHeader(const std::string& path, Elf64_Ehdr* header) {
    std::ifstream in(path, std::ios::binary);
    return in.read(reinterpret_cast<char*>(header), sizeof *header) &&
           std::memcmp(header->e_ident, ELFMAG, SELFMAG) == 0;
}

/// Whether the file has all that its header says: the loader maps it without looking, and what is
/// missing then ends the process.
bool isWhole(const std::string& path, int64_t size) {
    std::ifstream in(path, std::ios::binary);
    ElfW(Ehdr) header{};
    if (!in.read(reinterpret_cast<char*>(&header), sizeof header) ||
        header.e_phentsize != sizeof(ElfW(Phdr)) ||
        !in.seekg(static_cast<std::streamoff>(header.e_phoff))) {
        return false;
    }
    const auto bytes = static_cast<uint64_t>(size);
    for (int i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment{};
        if (!in.read(reinterpret_cast<char*>(&segment), sizeof segment) ||
            segment.p_offset > bytes || segment.p_filesz > bytes - segment.p_offset) {
            return false;
        }
    }
    return true;
}

/// Says more than the loader, which calls a library of another processor a file that is not there.
void checkHeader(const std::string& path) {
    Elf64_Ehdr library{};
    Elf64_Ehdr program{};
    errno = 0;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
        refuseLibrary(path, lastError() + "; give a libkorvane_tunnelrenderer.so");
    }
    if (!S_ISREG(status.st_mode) || !readHeader(path, &library) || library.e_type != ET_DYN) {
        refuseLibrary(path, "no shared library; give a libkorvane_tunnelrenderer.so");
    }
    if (readHeader(kThisProgram, &program) &&
        (library.e_machine != program.e_machine ||
         library.e_ident[EI_CLASS] != program.e_ident[EI_CLASS])) {
        refuseLibrary(path, "built for another processor than korvane-tv; build it for this one");
    }
    if (!isWhole(path, status.st_size)) {
        refuseLibrary(path, "is cut short; copy or build it again");
    }
}

// No thread has been started yet, so that nothing else reads or changes the environment or the text
// of the loader's last error. NOLINTBEGIN(concurrency-mt-unsafe)

/// Loads it beside the program's own and looks for the factory in it.
void checkLoads(const std::string& path) {
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        refuseLibrary(path, std::string("cannot be loaded: ") + dlerror());
    }
    Dl_info info{};
    void* const factory = dlsym(library, kFactory);
    if (factory == nullptr || dladdr(factory, &info) == 0 || !sameFile(info.dli_fname, path)) {
        refuseLibrary(path, std::string("does not export ") + kFactory +
                                "; give a libkorvane_tunnelrenderer.so");
    }
}

/// Whether the factory that the player calls is that of this file.
bool isInUse(const std::string& path) {
    Dl_info info{};
    void* const factory = dlsym(RTLD_DEFAULT, kFactory);
    return factory != nullptr && dladdr(factory, &info) != 0 && sameFile(info.dli_fname, path);
}

/// Of the file that names and links lead to.
std::string realPath(const std::string& path) {
    char* const resolved = realpath(path.c_str(), nullptr);
    std::string real = resolved != nullptr ? resolved : path;
    std::free(resolved);
    return real;
}

}  // namespace

void useLibrary(const std::string& path, char** argv) {
    if (path.empty()) {
        return;
    }
    checkHeader(path);
    if (isInUse(path)) {
        return;
    }
    if (getenv(kStartedAgain) != nullptr) {
        refuseLibrary(path, "the loader does not take it; LD_PRELOAD may be forbidden here");
    }
    checkLoads(path);
    const std::string real = realPath(path);
    if (real.find_first_of(" :") != std::string::npos) {
        refuseLibrary(path,
                      "the loader takes no path with a space or colon; give a copy elsewhere");
    }
    const char* const others = getenv(kPreload);
    setenv(kPreload, (real + (others != nullptr ? std::string(":") + others : "")).c_str(), 1);
    setenv(kStartedAgain, "1", 1);
    execv(kThisProgram, argv);
    refuseLibrary(path, "korvane-tv cannot start again: " + lastError());
}
// NOLINTEND(concurrency-mt-unsafe)

std::string hashOfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EventHash hash;
    char block[1 << 16];
    while (in.read(block, sizeof block) || in.gcount() > 0) {
        hash.add({block, static_cast<size_t>(in.gcount())});
    }
    return in.bad() || !in.eof() ? "" : hash.text();
}

}  // namespace korvane::player

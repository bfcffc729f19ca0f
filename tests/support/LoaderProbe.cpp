// SPDX-License-Identifier: Apache-2.0
// Runs the renderer library's two loaders against the device libraries in LD_LIBRARY_PATH. Prints
// each log line as "tag: I text", with line ends as \n, and the loaders' states at the start and
// after each step. Steps are the arguments: init, release. The program defines the platform's log
// call itself, so that it sees what is logged before main starts and after it ends.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "display/DisplayAdapterOps.h"
#include "videotunnel/VideoTunnelOps.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's own name
extern "C" __attribute__((visibility("default"), format(printf, 3, 4))) int __android_log_print(
    int priority, const char* tag, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    printf("%s: %c ", tag, "??VDIWEF?"[priority]);
    for (const char* at = text; *at != '\0'; ++at) {
        *at == '\n' ? fputs("\\n", stdout) : putchar(*at);
    }
    putchar('\n');
    fflush(stdout);
    return length;
}

namespace {

/// One digit per entry point, in the order of their fields: 1 if it was found.
template <typename... EntryPoint>
void printState(const char* name, bool inited, const void* handle, EntryPoint... entryPoints) {
    printf("%s inited=%d handle=%d has=", name, inited, handle != nullptr);
    (putchar(entryPoints != nullptr ? '1' : '0'), ...);
    putchar('\n');
}

void printStates() {
    const auto& tunnel = gVideoTunnelOps;
    printState("tunnel", tunnel.mInited, tunnel.mLibHandle, tunnel.mOpen, tunnel.mClose,
               tunnel.mAllocId, tunnel.mFreeId, tunnel.mConnect, tunnel.mDisconnect,
               tunnel.mSendCmd, tunnel.mQueueBuffer, tunnel.mDequeueBuffer,
               tunnel.mGetDisplayVsyncAndPeroid);
    const auto& adapter = gDisplayAdapterOps;
    printState("adapter", adapter.mInited, adapter.mLibHandle, adapter.mCreate, adapter.mDestroy);
}

}  // namespace

int main(int argc, char** argv) {
    printStates();
    for (int i = 1; i < argc; ++i) {
        const bool init = std::strcmp(argv[i], "init") == 0;
        printf(
            "%s=%d\n", argv[i],
            init ? gVideoTunnelOps.videoTunnelLibInit() : gVideoTunnelOps.videoTunnelLibRelease());
        printStates();
    }
}

// See LoaderProbe.h. The program supplies the platform's log call itself, so that it sees what is
// logged before its main runs and after it ends.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "display/DisplayAdapterOps.h"
#include "videotunnel/VideoTunnelOps.h"

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

class Missing {
public:
    template <typename EntryPoint>
    Missing& test(const char* name, EntryPoint entryPoint) {
        if (entryPoint == nullptr) {
            mNames += (mNames.empty() ? "" : ",") + std::string(name);
        }
        return *this;
    }
    std::string names() const { return mNames.empty() ? "-" : mNames; }

private:
    std::string mNames;
};

void printStates() {
    const auto& tunnel = gVideoTunnelOps;
    const std::string noTunnel = Missing()
                                     .test("open", tunnel.mOpen)
                                     .test("close", tunnel.mClose)
                                     .test("alloc_id", tunnel.mAllocId)
                                     .test("free_id", tunnel.mFreeId)
                                     .test("connect", tunnel.mConnect)
                                     .test("disconnect", tunnel.mDisconnect)
                                     .test("send_cmd", tunnel.mSendCmd)
                                     .test("queue_buffer", tunnel.mQueueBuffer)
                                     .test("dequeue_buffer", tunnel.mDequeueBuffer)
                                     .test("getVsync", tunnel.mGetDisplayVsyncAndPeroid)
                                     .names();
    const auto& adapter = gDisplayAdapterOps;
    const std::string noAdapter =
        Missing().test("create", adapter.mCreate).test("destroy", adapter.mDestroy).names();
    printf("tunnel inited=%d handle=%d missing=%s\n", tunnel.mInited, tunnel.mLibHandle != nullptr,
           noTunnel.c_str());
    printf("adapter inited=%d handle=%d missing=%s\n", adapter.mInited,
           adapter.mLibHandle != nullptr, noAdapter.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    printStates();
    for (int i = 1; i < argc; ++i) {
        const bool init = std::strcmp(argv[i], "init") == 0;
        const bool result =
            init ? gVideoTunnelOps.videoTunnelLibInit() : gVideoTunnelOps.videoTunnelLibRelease();
        printf("%s=%d\n", argv[i], result);
        printStates();
    }
}

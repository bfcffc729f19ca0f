// The tunnel library's loader before devices that lack the library or one of its entry points.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/LoaderProbe.h"

namespace {

using korvane::test::linesOf;
using korvane::test::runLoaderProbe;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::MatchesRegex;

const std::string kLog = "VideoTunnelWraper: ";
const std::string kState = "tunnel ";

struct Variant {
    std::string without;  ///< without its prefix
    std::string error;    ///< without dlerror's text; empty for none
    bool inited;
    std::string missing;
};

const std::vector<Variant> kVariants = {
    {"open", " dlsym tovak_vt_open", false,
     "open,close,alloc_id,free_id,connect,disconnect,send_cmd,queue_buffer,dequeue_buffer,"
     "getVsync"},
    {"close", " dlsym tovak_vt_close", false,
     "close,alloc_id,free_id,connect,disconnect,send_cmd,queue_buffer,dequeue_buffer,getVsync"},
    {"alloc_id", "dlsym tovak_vt_alloc_id", false,
     "alloc_id,free_id,connect,disconnect,send_cmd,queue_buffer,dequeue_buffer,getVsync"},
    {"free_id", "dlsym tovak_vt_free_id", false,
     "free_id,connect,disconnect,send_cmd,queue_buffer,dequeue_buffer,getVsync"},
    {"connect", "dlsym tovak_vt_connect", false,
     "connect,disconnect,send_cmd,queue_buffer,dequeue_buffer,getVsync"},
    {"disconnect", "dlsym tovak_vt_disconnect", false,
     "disconnect,send_cmd,queue_buffer,dequeue_buffer,getVsync"},
    {"send_cmd", " dlsym tovak_vt_send_cmd", true, "send_cmd"},
    {"queue_buffer", "", true, "queue_buffer"},
    {"dequeue_buffer", "dlsym tovak_vt_dequeue_buffer", false, "dequeue_buffer,getVsync"},
    {"getDisplayVsyncAndPeroid", "", true, "getVsync"},
};

const std::string kReady = "I videoTunnelLibInit ok\\n";
const std::string kConstructed = "I ctor videotunnel_ops\\n";
const std::string kReleased = "I videoTunnelLibRelease\\n";
const std::string kLeft = "I videotunnel_ops leave\\n";

TEST(VideoTunnelLoader, resolvesWhatIsThereAndNamesWhatIsMissing) {
    for (const Variant& variant : kVariants) {
        SCOPED_TRACE(variant.without);
        const std::string symbol = "tovak_vt_" + variant.without;
        const std::string dir = LIBRARY_DIR "/variants/without_" + symbol;
        const std::string error = "E " + variant.error + " failed, err=" + dir +
                                  "/libvideotunnel.so: undefined symbol: " + symbol + " \\n";
        // At load, then asked once more: an incomplete library is tried again from the first entry
        // point, on the handle that stayed open.
        std::vector<std::string> log;
        if (!variant.error.empty()) {
            log.push_back(error);
        }
        if (variant.inited) {
            log.push_back(kReady);
        }
        log.push_back(kConstructed);
        log.push_back(variant.inited ? "I videoTunnelLibInit has inited\\n" : error);
        log.push_back(kReleased);
        log.push_back(kLeft);

        const auto lines = runLoaderProbe(dir, "init");
        EXPECT_THAT(linesOf(lines, kLog), ElementsAreArray(log));
        const std::string state = std::string("inited=") + (variant.inited ? "1" : "0") +
                                  " handle=1 missing=" + variant.missing;
        EXPECT_THAT(linesOf(lines, kState), ElementsAre(state, state));
        EXPECT_THAT(linesOf(lines, "init="), ElementsAre(variant.inited ? "1" : "0"));
    }
}

TEST(VideoTunnelLoader, staysInitedAfterRelease) {
    const auto lines = runLoaderProbe(LIBRARY_DIR, "init release init release");
    EXPECT_THAT(linesOf(lines, kState),
                ElementsAre("inited=1 handle=1 missing=-", "inited=1 handle=1 missing=-",
                            "inited=1 handle=0 missing=-", "inited=1 handle=0 missing=-",
                            "inited=1 handle=0 missing=-"));
    EXPECT_THAT(linesOf(lines, "release="), ElementsAre("1", "1"));
    EXPECT_THAT(linesOf(lines, "init="), ElementsAre("1", "1"));
    EXPECT_THAT(linesOf(lines, kLog),
                ElementsAre(kReady, kConstructed, "I videoTunnelLibInit has inited\\n", kReleased,
                            "I videoTunnelLibInit has inited\\n", kReleased, kReleased, kLeft));
}

TEST(VideoTunnelLoader, withoutLibraryReportsOnceAndHasNothing) {
    char dir[] = "/tmp/korvane-loader-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::ofstream(std::string(dir) + "/libvideotunnel.so").close();  // no library, but in its place
    const auto lines = runLoaderProbe(dir, "init");
    std::filesystem::remove_all(dir);

    const std::string error =
        "E unable to dlopen libvideotunnel\\.so: .*/libvideotunnel\\.so: file too short";
    EXPECT_THAT(linesOf(lines, kLog), ElementsAre(MatchesRegex(error), kConstructed,
                                                  MatchesRegex(error), kReleased, kLeft));
    EXPECT_THAT(linesOf(lines, kState).back(),
                testing::StartsWith("inited=0 handle=0 missing=open,close"));
}

TEST(VideoTunnelLoader, isBuiltBeforeTheDisplayAdapterLoaderAndOutlivesIt) {
    std::vector<std::string> log;
    for (const std::string& line : runLoaderProbe(LIBRARY_DIR)) {
        if (line.find("inited=") == std::string::npos) {
            log.push_back(line);
        }
    }
    EXPECT_THAT(log, ElementsAre(kLog + kReady, kLog + kConstructed,
                                 "DisplayAdapterWraper: I tovakDisplayAdater_ops enter",
                                 "DisplayAdapterWraper: I tovakDisplayAdater_ops leave",
                                 kLog + kReleased, kLog + kLeft));
}

}  // namespace

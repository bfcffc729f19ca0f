// SPDX-License-Identifier: Apache-2.0
// The loaders of both libraries that are opened by name, on devices that lack a library or one of
// its entry points: one process each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using Lines = std::vector<std::string>;

const std::string kTunnel = "VideoTunnelWraper: ";
const std::string kAdapter = "DisplayAdapterWraper: ";
const std::string kReady = "I videoTunnelLibInit ok\\n";
const std::string kAgain = "I videoTunnelLibInit has inited\\n";
const std::string kConstructed = "I ctor videotunnel_ops\\n";
const std::string kReleased = "I videoTunnelLibRelease\\n";
const std::string kLeft = "I videotunnel_ops leave\\n";
const std::string kAdapterEntered = "I tovakDisplayAdater_ops enter";
const std::string kAdapterLeft = "I tovakDisplayAdater_ops leave";

/// What the probe wrote with this directory searched first; nothing when it failed. A library that
/// stands in for the renderer's (LD_LIBRARY_PATH) is the one that the probe loads, too.
Lines probe(const std::string& libraryDir, const std::string& steps) {
    const std::string command = "LD_LIBRARY_PATH='" + libraryDir +
                                "':${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}'" LIBRARY_DIR
                                "' '" LOADER_PROBE "' " +
                                steps + " 2>&1";
    FILE* output = popen(command.c_str(), "r");  // NOLINT(bugprone-command-processor,cert-env33-c)
    Lines lines;
    char line[1024];
    while (output != nullptr && fgets(line, sizeof(line), output) != nullptr) {
        lines.emplace_back(line);
        lines.back().pop_back();
    }
    return output != nullptr && pclose(output) == 0 ? lines : Lines{};
}

/// The lines that begin so, without that.
Lines linesOf(const Lines& lines, const std::string& prefix) {
    Lines kept;
    for (const std::string& line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            kept.push_back(line.substr(prefix.size()));
        }
    }
    return kept;
}

/// A directory for one device's libraries; it goes with the object.
class DeviceDir {
public:
    DeviceDir() { EXPECT_NE(mkdtemp(mPath.data()), nullptr); }
    /// Holds a copy of a library in which the dynamic linker finds one entry point no longer: its
    /// name in the symbol table has another first letter.
    DeviceDir(const std::string& file, const std::string& missing) : DeviceDir() {
        std::ifstream whole(LIBRARY_DIR "/" + file, std::ios::binary);
        std::string bytes(std::istreambuf_iterator<char>(whole), {});
        const std::string name = '\0' + missing + '\0';
        size_t renamed = 0;
        for (size_t at = 0; (at = bytes.find(name, at)) != std::string::npos; ++renamed) {
            bytes[at + 1] = '_';
        }
        EXPECT_GT(renamed, 0u) << missing << " is not in " << file;
        std::ofstream(mPath + "/" + file, std::ios::binary) << bytes;
    }
    ~DeviceDir() { std::filesystem::remove_all(mPath); }
    DeviceDir(const DeviceDir&) = delete;
    DeviceDir& operator=(const DeviceDir&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath = std::filesystem::temp_directory_path() / "korvane-loader-XXXXXX";
};

TEST(TunnelLoader, ResolvesWhatIsThereAndNamesWhatIsMissing) {
    const struct {
        const char* without;
        const char* error;  ///< up to the symbol's name; null: it is not missed
        bool stops;         ///< the loader gives up there
    } kInOrder[] = {
        {"open", " dlsym ", true},          {"close", " dlsym ", true},
        {"alloc_id", "dlsym ", true},       {"free_id", "dlsym ", true},
        {"connect", "dlsym ", true},        {"disconnect", "dlsym ", true},
        {"send_cmd", " dlsym ", false},     {"queue_buffer", nullptr, false},
        {"dequeue_buffer", "dlsym ", true}, {"getDisplayVsyncAndPeroid", nullptr, false}};
    size_t index = 0;
    for (const auto& c : kInOrder) {
        const std::string symbol = std::string("tovak_vt_") + c.without;
        SCOPED_TRACE(symbol);
        const DeviceDir dir("libvideotunnel.so", symbol);
        const std::string error =
            c.error == nullptr
                ? ""
                : std::string("E ") + c.error + symbol + " failed, err=" + dir.path() +
                      "/libvideotunnel.so: undefined symbol: " + symbol + " \\n";
        // At load, then asked once more: an incomplete library is tried again from the first entry
        // point, on the handle that stayed open.
        Lines log = c.stops ? Lines{error, kConstructed, error}
                            : Lines{error, kReady, kConstructed, kAgain};
        log.insert(log.end(), {kReleased, kLeft});
        if (error.empty()) {
            log.erase(log.begin());
        }
        std::string has(10, '1');
        has.replace(index, c.stops ? 10 - index : 1, c.stops ? 10 - index : 1, '0');
        ++index;
        const Lines lines = probe(dir.path(), "init");
        EXPECT_THAT(linesOf(lines, kTunnel), ElementsAreArray(log));
        const std::string state = (c.stops ? "inited=0" : "inited=1") + (" handle=1 has=" + has);
        EXPECT_THAT(linesOf(lines, "tunnel "), ElementsAre(state, state));
        EXPECT_THAT(linesOf(lines, "init="), ElementsAre(c.stops ? "0" : "1"));
    }
}

TEST(TunnelLoader, StaysInitedAfterReleaseAndIsBuiltFirstAndGoneLast) {
    const Lines lines = probe(LIBRARY_DIR, "init release init release");
    const std::string open = "inited=1 handle=1 has=1111111111";
    const std::string closed = "inited=1 handle=0 has=1111111111";
    EXPECT_THAT(linesOf(lines, "tunnel "), ElementsAre(open, open, closed, closed, closed));
    EXPECT_THAT(linesOf(lines, "release="), ElementsAre("1", "1"));
    EXPECT_THAT(linesOf(lines, "init="), ElementsAre("1", "1"));
    Lines log;
    for (const std::string& line : lines) {
        if (line.find(": ") != std::string::npos) {
            log.push_back(line.substr(line.find(": ") + 2));
        }
    }
    EXPECT_THAT(log, ElementsAre(kReady, kConstructed, kAdapterEntered, kAgain, kReleased, kAgain,
                                 kReleased, kAdapterLeft, kReleased, kLeft));
}

TEST(AdapterLoader, NamesTheMissingEntryPointAndKeepsWhatItHas) {
    EXPECT_THAT(linesOf(probe(LIBRARY_DIR, ""), "adapter "),
                ElementsAre("inited=0 handle=1 has=11"));
    for (const auto& [without, has] :
         {std::pair<std::string, const char*>{"createDisplayAdatperRemote", "00"},
          {"destroyDisplayAdapterRemote", "10"}}) {
        const DeviceDir dir("libtovak_display_adapter_remote.so", without);
        const Lines lines = probe(dir.path(), "");
        EXPECT_THAT(linesOf(lines, "adapter "),
                    ElementsAre(std::string("inited=0 handle=1 has=") + has));
        EXPECT_THAT(
            linesOf(lines, kAdapter),
            ElementsAre("E unable to find " + without + ":" + dir.path() +
                            "/libtovak_display_adapter_remote.so: undefined symbol: " + without,
                        kAdapterLeft));
    }
}

TEST(Loaders, WithoutALibraryReportAndHaveNothing) {
    const DeviceDir dir;
    for (const char* name : {"/libvideotunnel.so", "/libtovak_display_adapter_remote.so"}) {
        std::ofstream(dir.path() + name).close();  // an empty file is no library
    }
    const Lines lines = probe(dir.path(), "init");

    const auto error = [&](const char* name, const std::string& file) {
        return std::string("E unable to dlopen ") + name + ": " + dir.path() + "/" + file +
               ": file too short";
    };
    const std::string tunnel = error("libvideotunnel.so", "libvideotunnel.so");
    EXPECT_THAT(linesOf(lines, kTunnel),
                ElementsAre(tunnel, kConstructed, tunnel, kReleased, kLeft));
    EXPECT_EQ(linesOf(lines, "tunnel ").back(), "inited=0 handle=0 has=0000000000");
    EXPECT_THAT(linesOf(lines, kAdapter), ElementsAre(error("libtovak_display_adapter_remote",
                                                            "libtovak_display_adapter_remote.so"),
                                                      kAdapterLeft));
    EXPECT_EQ(linesOf(lines, "adapter ").back(), "inited=0 handle=0 has=00");
}

}  // namespace

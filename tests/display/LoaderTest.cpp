// The display adapter library's loader before devices that lack the library or an entry point.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/LoaderProbe.h"

namespace {

using korvane::test::linesOf;
using korvane::test::runLoaderProbe;
using testing::ElementsAre;
using testing::MatchesRegex;

const std::string kLog = "DisplayAdapterWraper: ";
const std::string kState = "adapter ";
const std::string kLeft = "I tovakDisplayAdater_ops leave";

TEST(DisplayAdapterLoader, resolvesBothEntryPoints) {
    const auto lines = runLoaderProbe(LIBRARY_DIR);
    EXPECT_THAT(linesOf(lines, kState), ElementsAre("inited=0 handle=1 missing=-"));
    EXPECT_THAT(linesOf(lines, kLog), ElementsAre("I tovakDisplayAdater_ops enter", kLeft));
}

TEST(DisplayAdapterLoader, namesTheMissingEntryPointAndKeepsWhatItHas) {
    struct Variant {
        std::string without;
        std::string missing;
    };
    for (const Variant& variant : {Variant{"createDisplayAdatperRemote", "create,destroy"},
                                   Variant{"destroyDisplayAdapterRemote", "destroy"}}) {
        SCOPED_TRACE(variant.without);
        const std::string dir = LIBRARY_DIR "/variants/without_" + variant.without;
        const auto lines = runLoaderProbe(dir);
        EXPECT_THAT(linesOf(lines, kState),
                    ElementsAre("inited=0 handle=1 missing=" + variant.missing));
        EXPECT_THAT(linesOf(lines, kLog),
                    ElementsAre("E unable to find " + variant.without + ":" + dir +
                                    "/libtovak_display_adapter_remote.so: undefined symbol: " +
                                    variant.without,
                                kLeft));
    }
}

TEST(DisplayAdapterLoader, withoutLibraryReportsOnceAndHasNothing) {
    char dir[] = "/tmp/korvane-loader-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::ofstream(std::string(dir) + "/libtovak_display_adapter_remote.so").close();
    const auto lines = runLoaderProbe(dir);
    std::filesystem::remove_all(dir);

    EXPECT_THAT(linesOf(lines, kState), ElementsAre("inited=0 handle=0 missing=create,destroy"));
    EXPECT_THAT(linesOf(lines, kLog),
                ElementsAre(MatchesRegex("E unable to dlopen libtovak_display_adapter_remote: .*"
                                         "libtovak_display_adapter_remote\\.so: file too short"),
                            kLeft));
}

}  // namespace

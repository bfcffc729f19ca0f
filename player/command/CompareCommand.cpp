// SPDX-License-Identifier: Apache-2.0
#include "player/command/CompareCommand.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <ostream>
#include <system_error>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/command/ExitStatus.h"
#include "player/command/Message.h"
#include "player/command/OutputFile.h"
#include "player/compare/ComparisonText.h"

namespace korvane::player {
namespace {

constexpr const char* kPageName = "compare.html";

/// The page in its folder, which is made if it is not there.
std::string pageIn(const std::string& folder) {
    if (folder.empty()) {
        return "";
    }
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw UsageError("--report " + printable(folder) + ": " + error.message() +
                         "; give a folder that can be written");
    }
    return folder + "/" + kPageName;
}

bool finishOutput(OutputFile* output) {
    const std::string failure = output->finish();
    if (!failure.empty()) {
        say(failure);
    }
    return failure.empty();
}

}  // namespace

int compareFiles(const CompareOptions& options, std::ostream& out) {
    auto [a, b] = readRuns(options.a, options.b);
    a.name = options.aName.empty() ? a.name : options.aName;
    b.name = options.bName.empty() ? b.name : options.bName;
    OutputFile json("--json", options.jsonFile);
    OutputFile page("--report", pageIn(options.reportFolder));
    claim(options.a, {&json, &page});
    claim(options.b, {&json, &page});
    const Comparison comparison = compareRuns(a, b);
    const ComparedPair pair{a, b, comparison};
    json.begin();
    page.begin();
    printComparison(out, pair, options.frames);
    if (json.wanted()) {
        writeComparisonJson(json.stream(), pair);
    }
    if (page.wanted()) {
        writeComparisonPage(page.stream(), pair);
    }
    const bool written = finishOutput(&json);
    return finishOutput(&page) && written && comparison.noWorse() ? kExitOk : kExitFailed;
}

}  // namespace korvane::player

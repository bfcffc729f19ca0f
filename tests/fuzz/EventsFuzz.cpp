// SPDX-License-Identifier: Apache-2.0
// Bytes as two event logs, the second one after a line of "--": each is read and both are compared,
// or one is refused in one line.
#include <sstream>

#include "player/base/Errors.h"
#include "player/compare/ComparisonText.h"
#include "tests/fuzz/Refusal.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace korvane;
    const std::string text = test::textOf(data, size);
    const std::string separator = "\n--\n";
    const size_t middle = text.find(separator);
    const bool two = middle != std::string::npos;
    const auto read = [](const std::string& log) {
        std::istringstream in(log);
        return player::runOf("log", player::readEventLog(in, "log"));
    };
    test::takeOrRefuse<player::InputError>([&] {
        const auto a = read(two ? text.substr(0, middle + 1) : text);
        const auto b = read(two ? text.substr(middle + separator.size()) : text);
        const auto comparison = player::compareRuns(a, b);
        std::ostringstream out;
        player::printComparison(out, {a, b, comparison}, true);
        player::writeComparisonJson(out, {a, b, comparison});
        player::writeComparisonPage(out, {a, b, comparison});
    });
    return 0;
}

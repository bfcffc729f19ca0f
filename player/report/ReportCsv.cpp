// SPDX-License-Identifier: Apache-2.0
// Frames as CSV and as JSON lines.
#include <fmt/format.h>

#include <iterator>
#include <ostream>

#include "player/report/Report.h"

namespace korvane::player {
namespace {

using Line = fmt::memory_buffer;

void append(Line* line, const LedgerValue& value, const char* quote, const char* none) {
    const auto out = std::back_inserter(*line);
    if (value.word != nullptr) {
        fmt::format_to(out, "{}{}{}", quote, value.word, quote);
    } else if (value.number) {
        fmt::format_to(out, "{}", *value.number);
    } else {
        fmt::format_to(out, "{}", none);
    }
}

void write(std::ostream& out, const Line& line) {
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
}

}  // namespace

CsvWriter::CsvWriter(std::ostream& out) : mOut(out) {
    const char* separator = "";
    for (const LedgerColumn& column : kLedger) {
        mOut << separator << column.name;
        separator = ",";
    }
    mOut << '\n';
}

void CsvWriter::onRow(const LedgerRow& row) {
    Line line;
    for (const LedgerColumn& column : kLedger) {
        append(&line, column.value(row), "", "");
        line.push_back(',');
    }
    line[line.size() - 1] = '\n';
    write(mOut, line);
}

void LedgerWriter::onRow(const LedgerRow& row) {
    Line line;
    fmt::format_to(std::back_inserter(line), "{{\"v\":{}", kLedgerSchemaVersion);
    for (const LedgerColumn& column : kLedger) {
        fmt::format_to(std::back_inserter(line), ",\"{}\":", column.name);
        append(&line, column.value(row), "\"", "null");
    }
    fmt::format_to(std::back_inserter(line), "}}\n");
    write(mOut, line);
}

}  // namespace korvane::player

// SPDX-License-Identifier: Apache-2.0
// Frames as CSV and as JSON lines.
#include <fmt/format.h>

#include <ostream>
#include <string>

#include "player/report/Report.h"

namespace korvane::player {
namespace {

void append(std::string* line, const LedgerValue& value, const char* quote, const char* none) {
    if (value.word != nullptr) {
        line->append(quote).append(value.word).append(quote);
    } else if (value.number) {
        line->append(fmt::format_int(*value.number).c_str());
    } else {
        line->append(none);
    }
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
    std::string line;
    for (const LedgerColumn& column : kLedger) {
        append(&line, column.value(row), "", "");
        line.push_back(',');
    }
    line.back() = '\n';
    mOut << line;
}

void LedgerWriter::onRow(const LedgerRow& row) {
    std::string line = fmt::format("{{\"v\":{}", kLedgerSchemaVersion);
    for (const LedgerColumn& column : kLedger) {
        line.append(",\"").append(column.name).append("\":");
        append(&line, column.value(row), "\"", "null");
    }
    line += "}\n";
    mOut << line;
}

}  // namespace korvane::player

// SPDX-License-Identifier: Apache-2.0
// The report in its forms: text for people; the summary as JSON and the frames as CSV or JSON lines
// for scripts.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "player/base/JsonValue.h"
#include "player/playback/Playback.h"
#include "player/report/LedgerColumns.h"
#include "player/report/Summary.h"
#include "tv/Trace.h"

namespace korvane::player {

/// The report for people: the verdict, then a labelled line or two for each question.
/// @param verdictOnly  print the first line alone
void printReport(std::ostream& out, const PlaybackRecord& record, const Summary& summary,
                 const tv::TraceReport& trace, bool verdictOnly);

/// Where a summary comes from.
struct Origin {
    std::string version;      ///< of korvane-tv
    std::string commandLine;  ///< plays the same again, in virtual time
    bool virtualTime = false;
    uint64_t seed = 0;
    std::string eventHash;
    std::string library = {};      ///< of --library; empty: the one that the program is linked with
    std::string libraryHash = {};  ///< of its bytes
};

/// Changes when a key is taken away or means something else; new keys do not change it.
/// docs/summary.schema.json describes every key.
constexpr int kSummarySchemaVersion = 1;

/// The summary as one flat JSON object.
JsonValue summaryJson(const Origin& origin, const PlaybackRecord& record, const Summary& summary,
                      const tv::TraceReport& trace);

/// The same as text, one key per line. Bytes of a file name that are no UTF-8 become U+FFFD.
void writeJson(std::ostream& out, const Origin& origin, const PlaybackRecord& record,
               const Summary& summary, const tv::TraceReport& trace);

/// Writes a header line, then one line per frame once its outcome is final and its time on screen
/// judged. Times are microseconds since the library's `start`, media times as in the file; an empty
/// field is unknown or does not apply.
class CsvWriter final : public LedgerListener {
public:
    explicit CsvWriter(std::ostream& out);
    void onRow(const LedgerRow& row) override;

private:
    std::ostream& mOut;
};

/// Changes when a name is taken away or means something else; new names do not change it.
/// docs/ledger.schema.json describes every name.
constexpr int kLedgerSchemaVersion = 1;

/// Writes one JSON object per line and frame, with the CSV's names and values; null for empty.
class LedgerWriter final : public LedgerListener {
public:
    explicit LedgerWriter(std::ostream& out) : mOut(out) {}
    void onRow(const LedgerRow& row) override;

private:
    std::ostream& mOut;
};

}  // namespace korvane::player

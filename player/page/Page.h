// SPDX-License-Identifier: Apache-2.0
// The report page: one HTML file that opens from disk, with all of a playback that the report
// shows. docs/page.md says how to read it.
//
// The page's data is the summary's JSON, as --json writes it, the frames' ledger in columns
// (PageColumn.h), and what PageRecorder collected. The page's code, in player/page/web, adds only
// what it can count from the columns.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "player/page/PageColumn.h"
#include "player/page/PageRecorder.h"
#include "player/report/Report.h"

namespace korvane::player {

/// Changes when pages of one version cannot be made from the data of another.
constexpr int kPageVersion = 1;

struct PageHeading {
    std::string name;                   ///< of the film or scenario
    std::string about;                  ///< what a scenario shows; may be empty
    std::vector<std::string> failures;  ///< expectations that did not hold
};

/// Writes the page of a playback. Call once for a recorder.
void writePage(std::ostream& out, const PageHeading& heading, const Origin& origin,
               const PlaybackRecord& record, const Summary& summary, const tv::TraceReport& trace,
               PageRecorder* recorder);

/// Writes a placeholder, to be replaced by the page once playback has ended.
void writeUnfinishedPage(std::ostream& out, const std::string& name);

/// A playback of the index.
struct IndexEntry {
    std::string name;
    std::string about;
    std::string verdict;
    std::string grade;  ///< empty: playback did not end
    std::string figures;
    std::string repeat;  ///< command line
    std::string page;    ///< relative to the index; empty: there is none
    std::vector<std::string> failures;
};
/// What a page draws of one side of a comparison: its frames by media time.
struct ComparedColumns {
    PageColumn media{PageColumn::Prediction::Line};
    PageColumn dwell{PageColumn::Prediction::Zero};   ///< vsyncs; nothing: never on screen
    PageColumn offset{PageColumn::Prediction::Last};  ///< from the sync clock
    PageColumn lipSync{PageColumn::Prediction::Last};
    PageColumn changed{PageColumn::Prediction::Zero};  ///< 1: not the same in the other
};

/// Writes the page that links the pages of several playbacks.
/// @param planned  number of all playbacks, those that have not ended yet included
void writeIndex(std::ostream& out, const std::vector<IndexEntry>& entries, size_t planned);

/// The contents of a comparison's page, as markup except for the charts.
struct ComparisonMarkup {
    std::string verdict;  ///< text
    std::string good;     ///< "good", "warn" or "bad"
    std::string sides;    ///< what A and B are
    std::string figures;  ///< tables
    std::string frames;
};
/// Writes the page that shows two playbacks over media time.
/// @throws std::runtime_error in a build without pages
void writeComparisonPage(std::ostream& out, const ComparisonMarkup& markup,
                         const std::array<ComparedColumns*, 2>& sides);

}  // namespace korvane::player

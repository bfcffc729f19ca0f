// SPDX-License-Identifier: Apache-2.0
// What every report page holds beside its data: markup, style and code of player/page/web, and the
// chart library. They are compiled in, so that the program needs no files.
#pragma once

#include <string_view>

namespace korvane::player {

struct PageAssets {
    std::string_view html;  ///< with marks such as @DATA@ where the rest goes
    std::string_view index;
    std::string_view compare;
    std::string_view compareJs;
    std::string_view css;
    std::string_view js;
    std::string_view chartsCss;
    std::string_view chartsJs;  ///< empty: the build could not fetch the library
    std::string_view chartsLicence;
};

/// All empty in a build that embeds none.
const PageAssets& pageAssets();

/// One line that says what this build lacks to write pages; empty: nothing.
std::string_view pageLacks();

}  // namespace korvane::player

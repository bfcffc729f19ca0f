// SPDX-License-Identifier: Apache-2.0
#include "player/page/PageAssets.h"

// Made by embed-page.cmake: one string literal for each file.
#if __has_include("korvane_page_assets.inc")
#include "korvane_page_assets.inc"
#endif

namespace korvane::player {

const PageAssets& pageAssets() {
#ifdef KORVANE_PAGE_ASSETS
    static constexpr PageAssets kAssets{kPageHtml,  kIndexHtml, kCompareHtml,
                                        kCompareJs, kPageCss,   kPageJs,
                                        kChartsCss, kChartsJs,  kChartsLicence};
#else
    static constexpr PageAssets kAssets{};
#endif
    return kAssets;
}

std::string_view pageLacks() {
    if (pageAssets().html.empty()) {
        return "this build has no report page; build with CMake to get it";
    }
    return pageAssets().chartsJs.empty()
               ? "this build lacks the chart library uPlot, for npm's registry was not reached "
                 "when "
                 "it was built; run scripts/fetch-uplot.sh and build again"
               : "";
}

}  // namespace korvane::player

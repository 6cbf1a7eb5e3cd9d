#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "host/sim/Recording.h"

namespace pwr::sim {

// The run as one self-contained page for a browser (report.html): the title, the summary, the
// plot (inline SVG) and the timeline with a filter by kind, with the styles and the script in
// the page and nothing fetched. It keeps the timeline's first kMaxLines lines as they stream
// past (and counts the rest), so its memory does not grow with the run.
class HtmlReport : public RunObserver {
  public:
    static constexpr size_t kMaxLines = 20000;

    void timeline(const TimelineEntry& entry) override;

    // Writes the page; `summaryText` and `plotSvg` as the run's other writers made them.
    void write(const Recording& recording, const std::string& summaryText,
               const std::string& plotSvg, std::ostream& out) const;

  private:
    std::vector<TimelineEntry> mLines;
    std::map<std::string, size_t> mKinds;  // every line's kind, counted
    size_t mTotal = 0;
};

}  // namespace pwr::sim

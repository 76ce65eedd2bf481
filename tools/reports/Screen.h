// What 'top' shows: the tables as they are now, and each channel's rate over the last looks.
#ifndef TOOLS_REPORTS_SCREEN_H
#define TOOLS_REPORTS_SCREEN_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "reports/Hosts.h"

class RateHistory {
  public:
    static constexpr size_t kLength = 16;

    // Of the tables that are shown; forgets those that are not any more.
    void add(const Machine& machine);

    // A channel's rates as bars, the highest of them a full one, the last at the right. `channel`
    // is its place in the table.
    std::string bars(const ShownTable& shown, size_t channel, bool utf8) const;

  private:
    using Key = std::pair<pid_t, FileId>;
    using Rates = std::vector<std::deque<uint32_t>>;

    static Key keyOf(const ShownTable& shown);

    std::map<Key, Rates> rates_;
};

struct ScreenLine {
    std::string text;
    size_t heading;  // the place of the line that tells whose channel this is, or its own
};

// The screen below its first line and the columns' names.
std::vector<ScreenLine> screenLines(const Machine& machine, const RateHistory& history, bool all,
                                    bool utf8);

struct ScreenPage {
    size_t number;  // from 0
    size_t count;
    std::string text;  // with the columns' names
};

// As many lines as fit, from page `number` on or the last one. A page begins with a heading.
ScreenPage screenPage(const std::vector<ScreenLine>& lines, size_t number, size_t rows);

#endif

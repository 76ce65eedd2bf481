// What 'top' shows: the table as it is now, and each channel's rate over the last looks.
#ifndef TOOLS_REPORTS_SCREEN_H
#define TOOLS_REPORTS_SCREEN_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

class RateHistory {
  public:
    static constexpr size_t kLength = 16;

    void add(const ChannelTable& table);
    void clear() { rates_.clear(); }

    // A channel's rates as bars, the highest of them a full one, the last at the right. `channel`
    // is its place in the table.
    std::string bars(size_t channel, bool utf8) const;

  private:
    std::vector<std::deque<uint32_t>> rates_;
};

// The screen below its first line.
std::string screenText(const ChannelTable& table, const TableHosts& hosts,
                       const RateHistory& history, bool all, bool utf8);

#endif

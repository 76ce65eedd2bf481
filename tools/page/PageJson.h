// What the page's scripts read, as JSON objects.
#ifndef TOOLS_PAGE_PAGEJSON_H
#define TOOLS_PAGE_PAGEJSON_H

#include <cstdint>
#include <optional>
#include <string>

#include "page/History.h"
#include "page/Snapshot.h"

// Everything at a glance, in one line.
std::string stateJson(const Snapshot& snapshot);

// The findings of all streams, or of one, as 'monitor' prints them.
std::string streamsJson(const Snapshot& snapshot, const std::optional<std::string>& only);

// The processes that tell the states of their streams.
std::string processesJson(const Snapshot& snapshot);

// The events behind a number.
std::string eventsJson(const Snapshot& snapshot, uint64_t after);

// Of one series, or of all that the snapshot has.
std::string seriesJson(const Snapshot& snapshot, const History& history, const std::string& series,
                       size_t points);
std::string allSeriesJson(const Snapshot& snapshot, const History& history, size_t points);

#endif

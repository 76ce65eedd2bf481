// Numbers and times as they are written on the command line and in reports.
#ifndef TOOLS_BASE_QUANTITY_H
#define TOOLS_BASE_QUANTITY_H

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

// Reads "2500000", "2500k" or "2.5M": a decimal number that is not negative, with k, M or G for
// thousands, millions or thousand millions. Fractions of one are rounded.
std::optional<uint64_t> parseQuantity(std::string_view text);

// "2.500 Mbit/s", "812.3 kbit/s".
std::string formatBitrate(uint64_t bitrate_bps);

// "1.3 MB", "812 B".
std::string formatBytes(uint64_t bytes);

// "0:07", "1:02:03".
std::string formatTime(std::chrono::milliseconds time);

// The form is that of strftime(3).
std::string utcTimeText(std::time_t time, const std::string& form);
std::string localTimeText(std::time_t time, const std::string& form);

// "1 datagram", "2 datagrams": `thing` is the word for one of them.
std::string counted(uint64_t number, std::string_view thing);

#endif

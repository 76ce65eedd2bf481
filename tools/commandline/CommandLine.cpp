#include "commandline/CommandLine.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>

#include "base/Errors.h"
#include "base/Quantity.h"
#include "media/StreamUrl.h"

std::string urlHelp() {
    return fmt::format(
        "\nURL: udp://HOST:PORT (raw) or rtp://HOST:PORT, with or without an '@' before HOST. "
        "HOST\n"
        "is an IPv4 address, an IPv6 address in brackets (with %zone where one is needed) or a\n"
        "name. Options follow behind '?', joined by '&':\n"
        "  iface=NAME         use this interface; localaddr=ADDRESS names it by its address\n"
        "  source=HOST        receive the group from this sender only; HOST@GROUP means the same\n"
        "  ttl=0..255         TTL of datagrams to a group: 0 keeps them on this machine, 1 on its\n"
        "                     network, and each router on the way takes one off; {} if not given\n"
        "  dscp=0..63         send datagrams with this DSCP; 34 is usual for video\n"
        "  reorder=0..1000    receive and relay put RTP in order: how many milliseconds a "
        "datagram\n"
        "                     waits at most for those in front of it; 50 if not given\n"
        "  fec                they also restore what is lost from FEC that comes in two and four\n"
        "                     ports above that of the stream (SMPTE ST 2022-1)\n"
        "Options of ffmpeg and VLC for buffer sizes are accepted and have no effect.\n{}",
        kDefaultTtl, kExitCodes);
}

uint64_t quantity(const std::string& option, const std::string& text, uint64_t smallest,
                  uint64_t largest) {
    const auto value = parseQuantity(text);
    if (!value || *value < smallest || *value > largest)
        throw UsageError(
            fmt::format("{} '{}': a number from {} to {} is accepted, also with k, M "
                        "or G for thousands, millions or thousand millions",
                        option, text, smallest, largest));
    return *value;
}

uint32_t bitrate(const std::string& option, const std::string& text) {
    return static_cast<uint32_t>(quantity(option, text, 1, UINT32_MAX));
}

std::chrono::milliseconds duration(const std::string& option, const std::string& text,
                                   double smallest, double largest) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const bool isNumber = !text.empty() && end == text.c_str() + text.size();
    if (!isNumber || !(value >= smallest && value <= largest))
        throw UsageError(fmt::format("{} '{}': a number of seconds from {} to {} is accepted",
                                     option, text, smallest, largest));
    return std::chrono::milliseconds(std::llround(value * 1000.0));
}

void checkPairs(const std::vector<std::string>& given, const std::string& second) {
    if (given.size() % 2 != 0)
        throw UsageError(fmt::format("a {} is missing for '{}'", second, given.back()));
}

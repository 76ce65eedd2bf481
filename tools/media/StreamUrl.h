// The addresses of streams as the field writes them: "udp://@239.1.1.1:1234?ttl=4".
#ifndef TOOLS_MEDIA_STREAMURL_H
#define TOOLS_MEDIA_STREAMURL_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QXV_RTP.h"

// Far enough for a campus, and the value that other senders start from.
inline constexpr uint8_t kDefaultTtl = 16;

// SCHEME://[@]HOST:PORT[?KEY=VALUE[&KEY=VALUE]], where
//   SCHEME  udp (raw) or rtp
//   @       means nothing; other tools write it in front of a group or of an address to listen on
//   HOST    a numeric IPv4 address, or a numeric IPv6 address in brackets, with %zone if need be;
//           left out, any IPv4 address
//   KEY     ttl (0 to 255) or localaddr (a numeric address of the interface to use)
struct StreamUrl {
    std::string text;  // as given
    bool rtp = false;
    bool ipv6 = false;
    bool multicast = false;
    bool anyHost = false;  // no host, or the any-address
    std::string host;      // without brackets, with its zone
    uint16_t port = 0;
    uint8_t ttl = kDefaultTtl;
    std::string localAddress;  // empty = not given
};

// Throws UsageError, which says what is wrong and what is accepted.
StreamUrl parseStreamUrl(std::string_view text);

// The channel configuration for sending to the URL, or for receiving from it; they throw UsageError
// for a URL that is good only for the other direction. A receive channel starts out expecting RTP,
// whatever the scheme: raw datagrams are then stored whole from the first on, whereas RTP
// datagrams would keep their headers until the channel has switched from raw.
RtpChannelConfig sendConfig(const StreamUrl& url);
RtpChannelConfig receiveConfig(const StreamUrl& url);

// What a numeric address, without brackets, is.
struct AddressKind {
    bool ipv6;
    bool multicast;
    bool any;
};
std::optional<AddressKind> classifyAddress(std::string_view text);

#endif

// The addresses of streams as the field writes them: "udp://@239.1.1.1:1234?ttl=4".
#ifndef TOOLS_MEDIA_STREAMURL_H
#define TOOLS_MEDIA_STREAMURL_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QXV_RTP.h"
#include "base/Errors.h"

// Far enough for a campus, and the value that other senders start from.
inline constexpr uint8_t kDefaultTtl = 16;

// SCHEME://[[SOURCE]@]HOST:PORT[?KEY[=VALUE][&KEY[=VALUE]]], where
//   SCHEME  udp (raw) or rtp
//   SOURCE  the only sender from which a group is received; without it, the '@' means nothing:
//           other tools write it in front of a group or of an address to listen on
//   HOST    an IPv4 address, an IPv6 address in brackets, with %zone if need be, or a name; left
//           out, any IPv4 address
//   KEY     ttl (0 to 255), dscp (0 to 63), source (as SOURCE), iface (name of the interface to
//           use) or localaddr (its address); of an RTP stream that comes in: reorder (0 to 1000),
//           in milliseconds, and fec. Options by which ffmpeg and VLC size their buffers are
//           accepted and have no effect.
struct StreamUrl {
    std::string text;  // as given
    bool rtp = false;
    bool ipv6 = false;  // what is not known of a name counts as false
    bool multicast = false;
    bool anyHost = false;  // no host, or the any-address
    bool hostIsName = false;
    bool sourceIsName = false;
    std::string host;  // an address without brackets, with its zone; or a name
    uint16_t port = 0;
    uint8_t ttl = kDefaultTtl;
    std::string localAddress;  // empty = not given; also the others
    std::string interface;
    std::string source;
    std::optional<uint8_t> dscp = std::nullopt;
    std::optional<uint16_t> reorder_ms = std::nullopt;
    bool fec = false;
};

// Throws UsageError, which says what is wrong and what is accepted.
StreamUrl parseStreamUrl(std::string_view text);

// A URL, or else the name of a file.
inline bool isStreamUrl(std::string_view text) {
    return text.find("://") != std::string_view::npos;
}

// The paths on which one stream comes in, "rtp://A+rtp://B": one, or two to four of RTP. Throws
// UsageError, also where one of the URLs cannot be received from.
std::vector<StreamUrl> parsePaths(std::string_view text);

// Where the parity of an RTP stream comes in (SMPTE ST 2022-1).
enum class FecPort : uint16_t { kColumns = 2, kRows = 4 };
StreamUrl fecUrl(const StreamUrl& url, FecPort port);

// Whether what comes in on the paths is put in order and merged, which the tool does on sockets of
// its own; and how long a datagram waits at most for those in front of it.
bool isRepaired(const std::vector<StreamUrl>& paths);
std::chrono::milliseconds reorderWindow(const std::vector<StreamUrl>& paths);
// The same when the datagram that it waits for may have to be restored first.
std::chrono::milliseconds longestWait(const std::vector<StreamUrl>& paths);

// They throw UsageError where the URL cannot be sent to, or received from, as far as that shows
// before its names are looked up.
void checkDestination(const StreamUrl& url);
void checkSource(const StreamUrl& url);

// The channel configuration for sending to the URL, or for receiving from it. Names are looked up
// each time, which may take seconds: those who must not wait pass what lookUp() has returned. They
// throw UsageError as above, or Failure where a name has no address. A receive channel starts out
// expecting RTP, whatever the scheme: raw datagrams are then stored whole from the first on,
// whereas RTP datagrams would keep their headers until the channel has switched from raw.
RtpChannelConfig sendConfig(const StreamUrl& given);
RtpChannelConfig receiveConfig(const StreamUrl& given);

// What to say where no socket can be opened to receive from the URL.
Failure noSocket(const StreamUrl& url);

// Stores addresses in place of names, and whatever depends on the address's kind. They throw
// UsageError where the URL's parts do not fit together.
void setHost(StreamUrl& url, std::string_view address);
void checkParts(const StreamUrl& url);

// What a numeric address, without brackets, is.
struct AddressKind {
    bool ipv6;
    bool multicast;
    bool any;
};
std::optional<AddressKind> classifyAddress(std::string_view text);

#endif

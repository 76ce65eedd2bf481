// What announces a stream to other programs, as text and bytes: session descriptions (SDP, RFC
// 4566) and the packets that carry them to whoever listens (SAP, RFC 2974).
#ifndef TOOLS_MEDIA_SDP_H
#define TOOLS_MEDIA_SDP_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "media/StreamUrl.h"

// Longer texts are refused: a session of one stream takes a few hundred bytes.
inline constexpr size_t kLongestSdp = size_t{64} * 1024;

// The URL from which the first transport stream of a description is received. Throws UsageError,
// which says what is missing; `file` is its name in complaints.
std::string urlOfSdp(std::string_view text, const std::string& file);

// Identifies the session of a stream and its name: the same as long as both are, and on every run.
uint64_t sessionOf(const StreamUrl& url, const std::string& name);

// The description of a stream that is sent to the URL under RTP. `origin` is an address of this
// machine.
std::string writeSdp(const StreamUrl& url, const std::string& name, const std::string& origin);

// "239.1.1.1_5000.sdp": for files of descriptions. It differs where one of two URLs is no
// destination beside the other.
std::string sdpFileName(const StreamUrl& url);

inline constexpr uint16_t kSapPort = 9875;
inline constexpr uint8_t kSapTtl = 255;

// The group to which a session of that group is announced, by its scope; empty where the URL is of
// no group.
std::string sapGroup(const StreamUrl& url);

// How long after a packet of so many bytes the next one follows, where `packets` different ones are
// sent to a group; `spread`, from 0 to 1, is to differ from packet to packet.
std::chrono::milliseconds sapInterval(size_t bytes, size_t packets, double spread);

// The packet that announces a session, or takes it back. Empty where the origin is no address.
std::string sapPacket(std::string_view sdp, uint64_t session, const std::string& origin,
                      bool takesBack);

#endif

// What the loopback interface of this machine can carry.
#ifndef TOOLS_MEDIA_LOOPBACKPROBE_H
#define TOOLS_MEDIA_LOOPBACKPROBE_H

#include <cstdint>
#include <optional>

#include "media/StreamUrl.h"

// Sends one datagram to the URL's host, over loopback, and says whether it came back. IPv6 may be
// switched off, and groups need a route that most machines do not have for loopback. The port does
// not matter; a free one is taken. At most half a second.
bool loopbackCarries(const StreamUrl& url);

// The first of `count` UDP ports in a row that nobody uses, on IPv4 or IPv6.
std::optional<uint16_t> findFreePorts(uint16_t count);

#endif

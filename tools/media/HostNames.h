// Names of hosts and interfaces, and the addresses behind them.
#ifndef TOOLS_MEDIA_HOSTNAMES_H
#define TOOLS_MEDIA_HOSTNAMES_H

#include <future>
#include <optional>

#include "media/StreamUrl.h"

// The URL with addresses in place of its names: the host's, the source's and, for an interface, its
// address as local address, or the zone of an IPv6 group. A name with several addresses gives the
// first that fits the URL's other parts, in the system's order (gai.conf(5)). The result holds for
// the moment: names get other addresses, and interfaces come and go. Asking name servers may take
// seconds, during which signals that the thread blocks go unnoticed. Throws Failure with the reason
// where a name has no address, or UsageError where its address does not fit the URL's other parts.
// Any thread may call it.
StreamUrl lookUp(const StreamUrl& given);

// The same for a thread that must not wait, since it serves other streams too. Name servers are
// asked on a thread of its own, which ends by itself, however late the answer comes.
class LookUp {
  public:
    // The URL with addresses, or none while they are not known yet: ask again later. Throws what
    // lookUp() throws, and begins anew with the next call.
    std::optional<StreamUrl> poll(const StreamUrl& url);

  private:
    std::future<StreamUrl> answer_;
};

#endif

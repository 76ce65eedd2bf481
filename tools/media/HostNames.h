// Names of hosts and interfaces, and the addresses behind them.
#ifndef TOOLS_MEDIA_HOSTNAMES_H
#define TOOLS_MEDIA_HOSTNAMES_H

#include "media/StreamUrl.h"

// The URL with addresses in place of its names: the host's, the source's and, for an interface, its
// address as local address, or the zone of an IPv6 group. A name with several addresses gives the
// first that fits the URL's other parts, in the system's order (gai.conf(5)). The result holds for
// the moment: names get other addresses, and interfaces come and go. Asking name servers may take
// seconds, during which signals that the thread blocks go unnoticed. Throws Failure with the reason
// where a name has no address, or UsageError where its address does not fit the URL's other parts.
// Any thread may call it.
StreamUrl lookUp(const StreamUrl& url);

#endif

// The network interfaces of this machine, as rtnetlink(7) tells of them. An interface is known by
// its number (its index in the kernel's words); 0 stands for none.
#ifndef SOCKETS_INTERFACES_H
#define SOCKETS_INTERFACES_H

#include <ifaddrs.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "Address.h"
#include "Descriptor.h"

namespace zaqsockets {

// Interfaces and their addresses at one moment.
class InterfaceList {
  public:
    InterfaceList();
    // False when the system did not tell. The list is then empty.
    explicit operator bool() const { return m_Entries != nullptr; }
    uint32_t WithAddress(const Address& address) const;
    bool Has(uint32_t interface) const;
    // Those that are up and can multicast.
    std::vector<uint32_t> ForGroups() const;

  private:
    std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> m_Entries{nullptr, &freeifaddrs};
    std::vector<uint32_t> m_Numbers;  // sorted
};

// The interface to which the route to the group leads.
uint32_t RouteTo(const Address& group);

// A socket that gets these groups' messages (rtnetlink(7)). Empty, with errno set, when refused.
Descriptor OpenNetlink(uint32_t groups);

}  // namespace zaqsockets

#endif

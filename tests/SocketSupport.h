// Sockets of the library, and interfaces for them.
#ifndef TESTS_SOCKETSUPPORT_H
#define TESTS_SOCKETSUPPORT_H

#include <gtest/gtest.h>
#include <netdb.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ProcessSupport.h"
#include "ZAQSockets.h"

constexpr uint16_t kPort = 5004;

inline int32_t IsGroup(const std::string& address) {
    int32_t multicast = 0;
    ZAQSocketsExtractIPAddress(address.c_str(), nullptr, nullptr, nullptr, &multicast);
    return multicast;
}

// Collects what arrives: the data and, as text, the source. The handler, if any, is called by the
// callback after that.
class Receiver {
  public:
    Receiver(const std::string& local, const std::string& remote, uint32_t port = kPort,
             int32_t option = 0, std::function<void(void* socket)> handler = {})
        : m_Handler(std::move(handler)),
          m_Socket(ZAQUDPSocket_Create(local.c_str(), remote.c_str(), port, port, IsGroup(remote),
                                       0, option, 0, &OnDatagram, this)) {}
    ~Receiver() { Destroy(); }

    explicit operator bool() const { return m_Socket != nullptr; }
    void Destroy() { ZAQUDPSocket_Destroy(std::exchange(m_Socket, nullptr)); }
    void Forget() { m_Socket = nullptr; }  // destroyed by its handle

    size_t Count() const {
        const std::lock_guard lock(m_Lock);
        return m_Datagrams.size();
    }
    auto All() const {
        const std::lock_guard lock(m_Lock);
        return m_Datagrams;
    }
    std::string Data() const {
        std::string joined;
        for (const auto& [data, source] : All())
            joined += data;
        return joined;
    }

  private:
    static void OnDatagram(void* socket, void*, sockaddr* source, unsigned char* data,
                           unsigned int length) {
        auto* const self = static_cast<Receiver*>(ZAQUDPSocket_GetContext(socket));
        char host[64];
        char port[8];
        getnameinfo(source, source->sa_family == AF_INET ? 16 : 28, host, sizeof(host), port,
                    sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV);
        std::string copy(reinterpret_cast<char*>(data), length);
        {
            const std::lock_guard lock(self->m_Lock);
            self->m_Datagrams.emplace_back(copy, host + std::string(" ") + port);
        }
        if (self->m_Handler)
            self->m_Handler(socket);
    }

    mutable std::mutex m_Lock;
    std::vector<std::pair<std::string, std::string>> m_Datagrams;
    const std::function<void(void*)> m_Handler;
    void* m_Socket;
};

struct Sender {
    Sender(const std::string& local, const std::string& remote, uint32_t port = kPort,
           int32_t ttl = 1)
        : Socket(ZAQUDPSocket_Create(local.c_str(), remote.c_str(), port, port, IsGroup(remote), 1,
                                     0, ttl, nullptr, nullptr),
                 &ZAQUDPSocket_Destroy) {}
    uint32_t Send(const std::string& data) const {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(data.data());
        return ZAQUDPSocket_SendAll(Socket.get(), bytes, static_cast<uint32_t>(data.size()));
    }
    const std::unique_ptr<void, void (*)(void*)> Socket;
};

// Two more interfaces that can multicast, a0 and a1, with two addresses of each family; what is
// sent on them comes back only on them.
struct Interfaces {
    Interfaces() {
        EXPECT_EQ(system("set -e; for n in 0 1; do"
                         " ip link add a$n type dummy 2>/dev/null || ip link add a$n type ifb;"
                         " ip link set a$n up multicast on; for i in 1 9; do"
                         " ip addr add 10.77.$n.$i/24 dev a$n label a$n:$i;"
                         " ip addr add fd77:$n::$i/64 dev a$n nodad; done; done;"
                         " while ip -6 addr show tentative | grep -q .; do sleep 0.01; done"),
                  0);
    }
    ~Interfaces() { EXPECT_EQ(system("ip link del a0; ip link del a1"), 0); }
};

#endif

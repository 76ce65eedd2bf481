#include "ZAQSockets.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <optional>

#include "Address.h"
#include "GroupSocket.h"
#include "ReceiveLoop.h"
#include "SocketOptions.h"
#include "Threads.h"

namespace {

using namespace zaqsockets;

constexpr uint32_t kHighestPort = 65535;
constexpr int kHighestTtl = 255;

}  // namespace

void* ZAQUDPSocket_Create(const char* localAddress, const char* remoteAddress, uint32_t localPort,
                          uint32_t remotePort, int32_t multicast, int32_t send,
                          int32_t multicastOption, int32_t ttl, ZAQReceiveCallback callback,
                          void* context) {
    const CancellationOff uncancelled;
    Address local;
    RemoteAddress remote;
    if (!local.Parse(AddressText(localAddress)) || !remote.Parse(AddressText(remoteAddress)) ||
        local.IsMulticast() || local.Family() != remote.Host.Family() ||
        (multicast == 1 && !remote.Host.IsMulticast()) || localPort > kHighestPort ||
        remotePort > kHighestPort || ttl < 0 || ttl > kHighestTtl ||
        (send == 0 && callback == nullptr))
        return nullptr;
    try {
        if (send != 0) {
            Descriptor file = OpenSendSocket(local, remote, remotePort, ttl);
            return file ? new UdpSocket{std::move(file), context, nullptr} : nullptr;
        }
        auto socket = std::make_unique<ReceiveSocket>(context, callback);
        if (remote.Host.IsMulticast()) {
            auto group = std::make_shared<Group>();
            group->Local = localAddress;
            group->Remote = remoteAddress;
            group->Port = localPort;
            group->Everywhere = multicastOption == 1;
            socket->File = OpenGroupSocket(*group, InterfaceList());
            socket->Joined = std::move(group);
        } else {
            socket->File = OpenUnicastSocket(local, localPort);
        }
        // From the success on, the loop's thread has it, and a callback may have destroyed it.
        UdpSocket* const handle = socket.get();
        if (socket->File && AttachSocket(*socket)) {
            static_cast<void>(socket.release());
            return handle;
        }
    } catch (const std::bad_alloc&) {
    }
    EndUnusedThreads(false);  // those that were started for this socket
    return nullptr;
}

void ZAQUDPSocket_Destroy(void* socket) {
    const CancellationOff uncancelled;
    auto* const owned = static_cast<UdpSocket*>(socket);
    if (owned != nullptr && owned->Receiver != nullptr)
        DetachSocket(owned->Receiver);
    else
        delete owned;
}

void* ZAQUDPSocket_GetContext(void* socket) {
    return socket != nullptr ? static_cast<UdpSocket*>(socket)->Context : nullptr;
}

uint32_t ZAQUDPSocket_SendAll(void* socket, const unsigned char* data, uint32_t length) {
    if (socket == nullptr)
        return 0;
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds kLongest{1};
    constexpr int kAttempts = 8;
    const int file = static_cast<UdpSocket*>(socket)->File.Number();
    // Each signal starts the socket's own time limit anew. Most sends never need the time.
    std::optional<Clock::time_point> interrupted;
    for (int attempt = 0; attempt < kAttempts;) {
        const ssize_t sent = send(file, data, length, MSG_NOSIGNAL);
        if (sent >= 0)
            return sent == static_cast<ssize_t>(length) ? 1 : 0;
        if (errno == EINTR) {
            const auto now = Clock::now();
            if (now - interrupted.value_or(now) > kLongest)
                return 0;
            interrupted = interrupted.value_or(now);
        } else if (errno == EAGAIN) {
            return 0;
        } else {
            // An error that ICMP brought in answer to an earlier datagram is reported by the next
            // send, which then sends nothing (udp(7)). It is gone with the report.
            ++attempt;
        }
    }
    return 0;
}

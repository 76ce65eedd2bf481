#include "ZAQSockets.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "Address.h"
#include "ReceiveLoop.h"
#include "SocketOptions.h"

namespace {

using zaqsockets::Address;
using zaqsockets::Descriptor;
using zaqsockets::GroupSource;
using zaqsockets::ReceiveLoop;
using zaqsockets::ReceiveSocket;

constexpr uint32_t kHighestPort = 65535;
constexpr int kHighestTtl = 255;

// What a handle points to.
struct UdpSocket {
    void* Context;
    Descriptor Sender;        // a send socket's
    ReceiveSocket* Receiver;  // a receive socket's
};

// An error that ICMP brought in answer to an earlier datagram is reported by the next send, which
// then sends nothing (udp(7)). It is gone with the report, so the datagram is sent again.
bool MayAnswerEarlierDatagram(int error) {
    switch (error) {
        case ECONNREFUSED:
        case EHOSTUNREACH:
        case EHOSTDOWN:
        case ENETUNREACH:
        case ENONET:
        case ENOPROTOOPT:
        case EPROTO:
        case EACCES:
        case EOPNOTSUPP:
        case EMSGSIZE:
            return true;
        default:
            return false;
    }
}

Descriptor OpenReceiveSocket(Address local, Address remote, uint32_t port, int32_t option) {
    if (!remote.IsMulticast()) {
        local.SetPort(port);
        return zaqsockets::OpenUnicastSocket(local);
    }
    remote.SetPort(port);
    return zaqsockets::OpenGroupSocket(local, remote, option == 1);
}

// The handle comes before the socket is attached, since the first callback needs it.
UdpSocket* StartReceiving(Descriptor file, const GroupSource& source, ZAQReceiveCallback callback,
                          void* context) {
    std::unique_ptr<ReceiveSocket> receiver(new (std::nothrow) ReceiveSocket);
    std::unique_ptr<UdpSocket> socket(new (std::nothrow)
                                          UdpSocket{context, Descriptor(), receiver.get()});
    if (!receiver || !socket)
        return nullptr;
    receiver->Handle = socket.get();
    receiver->Callback = callback;
    receiver->Source = source;
    receiver->File = std::move(file);
    if (!ReceiveLoop::Attach(*receiver))
        return nullptr;
    static_cast<void>(receiver.release());  // the loop's now, and known to the handle already
    return socket.release();
}

}  // namespace

void* ZAQUDPSocket_Create(const char* localAddress, const char* remoteAddress, uint32_t localPort,
                          uint32_t remotePort, int32_t multicast, int32_t send,
                          int32_t multicastOption, int32_t ttl, ZAQReceiveCallback callback,
                          void* context) {
    Address local;
    Address remote;
    if (!local.Parse(localAddress) || !remote.Parse(remoteAddress) || local.IsMulticast() ||
        local.Family() != remote.Family() || (multicast == 1 && !remote.IsMulticast()) ||
        localPort > kHighestPort || remotePort > kHighestPort || ttl < 0 || ttl > kHighestTtl)
        return nullptr;
    if (send == 0) {
        Descriptor file = OpenReceiveSocket(local, remote, localPort, multicastOption);
        if (!file || callback == nullptr)
            return nullptr;
        GroupSource source;
        if (remote.IsMulticast()) {
            // Both have been parsed, and so have room.
            snprintf(source.Local, sizeof(source.Local), "%s", localAddress);
            snprintf(source.Group, sizeof(source.Group), "%s", remoteAddress);
            source.Port = localPort;
            source.Everywhere = multicastOption == 1;
        }
        return StartReceiving(std::move(file), source, callback, context);
    }
    remote.SetPort(remotePort);
    Descriptor file = zaqsockets::OpenSendSocket(local, remote, ttl);
    return file ? new (std::nothrow) UdpSocket{context, std::move(file), nullptr} : nullptr;
}

void ZAQUDPSocket_Destroy(void* socket) {
    const std::unique_ptr<UdpSocket> owned(static_cast<UdpSocket*>(socket));
    if (owned && owned->Receiver != nullptr)
        ReceiveLoop::Detach(owned->Receiver);
}

void* ZAQUDPSocket_GetContext(void* socket) {
    return socket != nullptr ? static_cast<UdpSocket*>(socket)->Context : nullptr;
}

uint32_t ZAQUDPSocket_SendAll(void* socket, const unsigned char* data, uint32_t length) {
    if (socket == nullptr)
        return 0;
    constexpr int kAttempts = 8;
    const int file = static_cast<UdpSocket*>(socket)->Sender.Number();
    for (int attempt = 0; attempt < kAttempts;) {
        const ssize_t sent = send(file, data, length, MSG_NOSIGNAL);
        if (sent >= 0)
            return sent == static_cast<ssize_t>(length) ? 1 : 0;
        if (errno == EINTR)
            continue;
        if (!MayAnswerEarlierDatagram(errno))
            return 0;
        ++attempt;
    }
    return 0;
}

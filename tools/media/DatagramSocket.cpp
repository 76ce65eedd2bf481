#include "media/DatagramSocket.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Address.h"
#include "SocketOptions.h"

namespace {

using namespace zaqsockets;
using std::chrono::nanoseconds;

nanoseconds wallTime() {
    return std::chrono::system_clock::now().time_since_epoch();
}

// What the kernel counts for a datagram, its own structures included.
double countedBytes(unsigned int length) {
    constexpr unsigned int kFrameBytes = 1500;
    constexpr double kCountedBytes = 2304;
    const unsigned int frames = length / kFrameBytes + 1;
    return frames * kCountedBytes;
}

template <typename Value>
Value valueOf(const cmsghdr& control) {
    Value value{};
    std::memcpy(&value, CMSG_DATA(&control),
                std::min(sizeof value, size_t{control.cmsg_len} - CMSG_LEN(0)));
    return value;
}

ts::DatagramSource sourceOf(const msghdr& message) {
    sockaddr_in6 six{};
    std::memcpy(&six, message.msg_name, std::min<size_t>(message.msg_namelen, sizeof six));
    ts::DatagramSource source{};
    source.port = ntohs(six.sin6_port);  // which IPv4 has at the same place
    source.ipv6 = six.sin6_family == AF_INET6;
    sockaddr_in four{};
    std::memcpy(&four, &six, sizeof four);
    if (source.ipv6)
        std::memcpy(source.address.data(), &six.sin6_addr, sizeof six.sin6_addr);
    else
        std::memcpy(source.address.data(), &four.sin_addr, sizeof four.sin_addr);
    return source;
}

}  // namespace

DatagramSocket::DatagramSocket(const StreamUrl& url) : isGroup_(url.multicast) {
    const std::string any = url.ipv6 ? "::" : "0.0.0.0";
    if (isGroup_) {
        group_.Local = url.localAddress.empty() ? any : url.localAddress;
        group_.Remote = (url.source.empty() ? "" : url.source + '@') + url.host;
        group_.Port = url.port;
        socket_ = OpenGroupSocket(group_, InterfaceList());
    } else if (Address local; local.Parse(url.localAddress.empty() ? url.host : url.localAddress)) {
        socket_ = OpenUnicastSocket(local, url.port);
    }
    if (!socket_)
        throw noSocket(url);
    prepare();
}

// A socket that lacks one of these is still a socket.
void DatagramSocket::prepare() {
    Set(socket_, SOL_SOCKET, SO_TIMESTAMPNS, 1);
    Set(socket_, SOL_SOCKET, SO_RXQ_OVFL, 1);
    // Only those of the socket's own family succeed.
    Set(socket_, IPPROTO_IP, IP_RECVTTL, 1);
    Set(socket_, IPPROTO_IP, IP_RECVTOS, 1);
    Set(socket_, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1);
    Set(socket_, IPPROTO_IPV6, IPV6_RECVTCLASS, 1);
    int bytes = 0;
    socklen_t size = sizeof bytes;
    getsockopt(socket_.Number(), SOL_SOCKET, SO_RCVBUF, &bytes, &size);
    bufferBytes_ = std::max(bytes, 1);
    lastDropped_ = 0;
}

DatagramSocket::Taken DatagramSocket::receive(DatagramBatch& batch,
                                              const std::function<void(const ts::Datagram&)>& use) {
    const int count =
        recvmmsg(socket_.Number(), batch.Messages, DatagramBatch::kMessages, MSG_DONTWAIT, nullptr);
    Taken taken{std::max(count, 0), 0.0};
    // Together: a step of the wall clock shifts no more than what has come since the last call.
    now_ = Clock::now().time_since_epoch();
    wallAhead_ = wallTime() - now_;
    for (int i = 0; i < taken.datagrams; ++i) {
        const mmsghdr& message = batch.Messages[i];
        ts::Datagram datagram{};
        datagram.payload = {batch.Slots[i], message.msg_len};
        datagram.arrival = now_;
        datagram.source = sourceOf(message.msg_hdr);
        read(message.msg_hdr, datagram);
        datagram.arrival = lastArrival_ = std::clamp(datagram.arrival, lastArrival_, now_);
        taken.ofBuffer += countedBytes(message.msg_len) / bufferBytes_;
        batch.Renew(i);
        use(datagram);
    }
    return taken;
}

void DatagramSocket::read(const msghdr& message, ts::Datagram& datagram) {
    constexpr int kEcnBits = 2;
    // CMSG_NXTHDR does not change what it is given.
    auto* const whole = const_cast<msghdr*>(&message);
    for (const cmsghdr* control = CMSG_FIRSTHDR(whole); control != nullptr;
         control = CMSG_NXTHDR(whole, const_cast<cmsghdr*>(control))) {
        const int level = control->cmsg_level;
        const int type = control->cmsg_type;
        if (level == SOL_SOCKET && type == SCM_TIMESTAMPNS) {
            datagram.arrival = toSteady(valueOf<timespec>(*control));
        } else if (level == SOL_SOCKET && type == SO_RXQ_OVFL) {
            const auto number = valueOf<uint32_t>(*control);
            dropped_ += number - lastDropped_;
            lastDropped_ = number;
        } else if ((level == IPPROTO_IP && type == IP_TTL) ||
                   (level == IPPROTO_IPV6 && type == IPV6_HOPLIMIT)) {
            datagram.ttl = static_cast<uint8_t>(valueOf<int>(*control));
        } else if ((level == IPPROTO_IP && type == IP_TOS) ||
                   (level == IPPROTO_IPV6 && type == IPV6_TCLASS)) {
            // One byte long, of IPv4; the others are zero then.
            datagram.dscp = static_cast<uint8_t>(valueOf<uint32_t>(*control) >> kEcnBits);
        }
    }
}

nanoseconds DatagramSocket::toSteady(const timespec& stamp) const {
    return std::chrono::seconds(stamp.tv_sec) + nanoseconds(stamp.tv_nsec) - wallAhead_;
}

bool DatagramSocket::renew(const InterfaceList& interfaces) {
    if (!isGroup_)
        return true;
    Descriptor renewed;
    const bool joined = RenewMemberships(group_, socket_, interfaces, renewed);
    if (renewed) {
        socket_ = std::move(renewed);
        prepare();
    }
    return joined;
}

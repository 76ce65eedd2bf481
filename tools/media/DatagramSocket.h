// A socket of the tool's own that receives a stream, with the kernel's times of arrival.
#ifndef TOOLS_MEDIA_DATAGRAMSOCKET_H
#define TOOLS_MEDIA_DATAGRAMSOCKET_H

#include <sys/socket.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "Descriptor.h"
#include "GroupSocket.h"
#include "ReceiveBatch.h"
#include "Reception.h"
#include "media/NetworkWatch.h"
#include "media/StreamUrl.h"

// Storage for what one call takes; sockets that one thread serves may share it. The control
// messages are the time of arrival, the TTL, the byte that has the DSCP, and the number of drops.
using DatagramBatch =
    zaqsockets::ReceiveBatch<CMSG_SPACE(sizeof(timespec)) + 3 * CMSG_SPACE(sizeof(int))>;

// Groups are shared with every other receiver on this machine: all get all datagrams. A unicast
// port has one receiver.
//
// Thread safety: one thread uses it.
class DatagramSocket {
  public:
    using Clock = std::chrono::steady_clock;

    // The URL has no names any more (HostNames.h). Throws Failure.
    explicit DatagramSocket(const StreamUrl& url);
    DatagramSocket(const DatagramSocket&) = delete;
    DatagramSocket& operator=(const DatagramSocket&) = delete;

    struct Taken {
        int datagrams;    // as many as the batch has room for: there may be more
        double ofBuffer;  // the share of the socket's buffer that they filled
    };

    // Passes on what has come, in its order, without waiting. The times of arrival are on the
    // steady clock, and none lies before the one before it.
    Taken receive(DatagramBatch& batch, const std::function<void(const ts::Datagram&)>& use);

    // The datagrams since the last call for which the socket's buffer had no room. The kernel
    // reports them with the next one that it had room for.
    uint64_t takeDropped() { return std::exchange(dropped_, 0); }

    // To be called after a look at the interfaces. False when the group is joined nowhere any more,
    // so that a new socket is needed.
    bool renew(const zaqsockets::InterfaceList& interfaces);

  private:
    void prepare();
    void read(const msghdr& message, ts::Datagram& datagram);
    std::chrono::nanoseconds toSteady(const timespec& stamp) const;

    zaqsockets::Group group_;  // of a group
    const bool isGroup_;
    zaqsockets::Descriptor socket_;
    double bufferBytes_ = 1.0;  // as the kernel counts
    uint64_t dropped_ = 0;
    uint32_t lastDropped_ = 0;  // the kernel's number, which wraps
    std::chrono::nanoseconds now_{};
    std::chrono::nanoseconds wallAhead_{};  // the wall clock, ahead of the steady clock
    std::chrono::nanoseconds lastArrival_{};
};

#endif

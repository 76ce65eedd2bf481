// Storage of one recvmmsg() call.
#ifndef SOCKETS_RECEIVEBATCH_H
#define SOCKETS_RECEIVEBATCH_H

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace zaqsockets {

// With room for so many bytes of control messages (cmsg(3)) each.
template <size_t kControlBytes = CMSG_SPACE(sizeof(int))>
struct ReceiveBatch {
    static constexpr int kMessages = 64;
    static constexpr size_t kLargestDatagram = 65536;  // 65507 bytes of payload fit (IPv6: 65527)
    // The slots' first lines must not share a cache set, or a batch would evict itself.
    static constexpr size_t kSlotBytes = kLargestDatagram + size_t{33} * 64;

    mmsghdr Messages[kMessages];
    iovec Vectors[kMessages];
    sockaddr_in6 Sources[kMessages];  // the larger of the two families
    alignas(cmsghdr) unsigned char Controls[kMessages][kControlBytes];
    unsigned char Slots[kMessages][kSlotBytes];

    // The slots stay untouched, and so without memory behind them, until datagrams fill them.
    // cppcheck-suppress uninitMemberVar ; for that reason
    ReceiveBatch() {
        for (int i = 0; i < kMessages; ++i) {
            Vectors[i] = {Slots[i], kLargestDatagram};
            Messages[i] = {};
            Messages[i].msg_hdr.msg_iov = &Vectors[i];
            Messages[i].msg_hdr.msg_iovlen = 1;
            Messages[i].msg_hdr.msg_name = &Sources[i];
            Messages[i].msg_hdr.msg_control = Controls[i];
            Renew(i);
        }
    }

    // The kernel writes the lengths that it used.
    void Renew(int i) {
        Messages[i].msg_hdr.msg_namelen = sizeof(Sources[i]);
        Messages[i].msg_hdr.msg_controllen = sizeof(Controls[i]);
    }

    // Calls visit(source, data, length) for every datagram of a message: the network card or the
    // kernel may have joined a train of them, equal in size but for the last (udp(7), UDP_GRO).
    template <typename Visit>
    void ForEachDatagram(int i, Visit visit) {
        auto* const source = reinterpret_cast<sockaddr*>(&Sources[i]);
        const unsigned int size = DatagramSize(i);
        const unsigned int length = Messages[i].msg_len;
        unsigned int offset = 0;
        do {
            visit(source, Slots[i] + offset, std::min(size, length - offset));
            offset += size;
        } while (offset < length);
    }

  private:
    unsigned int DatagramSize(int i) {
        const cmsghdr* const control = CMSG_FIRSTHDR(&Messages[i].msg_hdr);
        if (control == nullptr || control->cmsg_level != SOL_UDP || control->cmsg_type != UDP_GRO)
            return Messages[i].msg_len;
        int size;
        memcpy(&size, CMSG_DATA(control), sizeof(size));
        return size > 0 ? static_cast<unsigned int>(size) : Messages[i].msg_len;
    }
};

}  // namespace zaqsockets

#endif

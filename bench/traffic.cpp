// traffic ROUTINE CHANNELS RATE_BPS raw|rtp [SECONDS|FILE]: the traffic around what the bench
// measures, and the bare loops beside it. One port on 127.0.0.1 for each channel; the rate is that
// of one channel and counts packets only, not RTP headers.
//
// A routine that sends goes on for so many seconds, then prints how many datagrams it has sent;
// without the number it goes on until it is killed, as those that receive do:
//   bursts   sends what is due on all sockets, sleeps for 1 ms
//   spread   sleeps until the next datagram is due; the channels' datagrams leave in turn
//   trains   sends bursts of 16 datagrams without sleeping, which the kernel cuts out of one buffer
//   singles  the same, each datagram handed over on its own
//   unpaced  one channel, as fast as send() goes
//   epoll    receives with epoll_wait, up to 64 datagrams a recvmmsg
//   drain    takes what all sockets have, sleeps for 1 ms
//   spin     takes what all sockets have, never sleeps
//   stamps   writes the kernel's arrival time of each datagram to FILE
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/udp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Packets.h"

namespace {

constexpr int kBatch = 64;
constexpr uint32_t kTrain = 16;
constexpr uint32_t kRtpHeaderBytes = 12;
constexpr int kReceiveBuffer = 8 << 20;
constexpr useconds_t kTick_us = 1000;

uint32_t g_Channels;
double g_Period_ns;      // of one channel's datagrams
uint32_t g_HeaderBytes;  // in front of the packets
const char* g_Last;      // the last argument, or null
int64_t g_End_ns;

int64_t now_ns() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

void check(bool good, const char* what) {
    if (!good)
        throw std::runtime_error(std::string(what) + ": " + strerror(errno));
}

std::vector<int> openSockets(bool receive) {
    std::vector<int> sockets;
    for (uint32_t channel = 0; channel < g_Channels; ++channel) {
        const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(kFirstPort + channel));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        const int size = kReceiveBuffer;
        check(!receive || setsockopt(file, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0,
              "SO_RCVBUFFORCE");
        check((receive ? bind : connect)(file, generic, sizeof(address)) == 0, "socket");
        sockets.push_back(file);
    }
    return sockets;
}

// A datagram of seven packets, with a header or without one.
struct Datagram {
    uint8_t bytes[kRtpHeaderBytes + kPayloadBytes]{0x80, 33};
    uint8_t* const start = bytes + kRtpHeaderBytes - g_HeaderBytes;
    const size_t size = g_HeaderBytes + kPayloadBytes;

    void setNumber(uint64_t number) {
        bytes[2] = static_cast<uint8_t>(number >> 8);
        bytes[3] = static_cast<uint8_t>(number);
        fillDatagram(bytes + kRtpHeaderBytes, number);
    }
};

void sendUntilEnd(uint64_t& sent, auto round) {
    while (now_ns() < g_End_ns)
        round(sent);
    printf("%llu\n", static_cast<unsigned long long>(sent));
}

// `wait(start_ns)` is called after each round.
void sendDue(auto wait) {
    // Wakes the thread 1 ms after the call and not, as is the default, up to 50 us later.
    prctl(PR_SET_TIMERSLACK, 1);
    const std::vector<int> sockets = openSockets(false);
    Datagram datagram;
    std::vector<uint64_t> numbers(g_Channels);
    const int64_t start = now_ns();
    uint64_t total = 0;
    sendUntilEnd(total, [&](uint64_t& sent) {
        const auto elapsed = static_cast<double>(now_ns() - start);
        for (uint32_t channel = 0; channel < g_Channels; ++channel) {
            const double phase = g_Period_ns * channel / g_Channels;
            const auto due =
                elapsed < phase ? 0 : static_cast<uint64_t>((elapsed - phase) / g_Period_ns);
            for (uint64_t& number = numbers[channel]; number < due; ++number, ++sent) {
                datagram.setNumber(number);
                send(sockets[channel], datagram.start, datagram.size, 0);
            }
        }
        wait(start);
    });
}

void sendBursts() {
    sendDue([](int64_t) { usleep(kTick_us); });
}

void sendSpread() {
    const double gap_ns = g_Period_ns / g_Channels;
    sendDue([=](int64_t start) {
        const double next = std::floor(static_cast<double>(now_ns() - start) / gap_ns) + 1;
        const int64_t due = start + static_cast<int64_t>(next * gap_ns);
        const timespec time{due / 1'000'000'000, due % 1'000'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
    });
}

void sendUnpaced() {
    const std::vector<int> sockets = openSockets(false);
    Datagram datagram;
    datagram.setNumber(0);
    for (;;)
        send(sockets[0], datagram.start, datagram.size, 0);
}

// Keeps to the sum of the rates without sleeping.
void sendFlood(bool trains) {
    // Behind by more than this, it does not catch up: the run then counts as of a lower rate. A
    // burst of all that was missed would fill any receiver's buffer.
    constexpr int64_t kCatchUp_ns = 2'000'000;
    const std::vector<int> sockets = openSockets(false);
    Datagram datagrams[kTrain];
    iovec vectors[kTrain];
    mmsghdr messages[kTrain]{};
    for (uint32_t i = 0; i < kTrain; ++i) {
        datagrams[i].setNumber(i);
        vectors[i] = {datagrams[i].start, datagrams[i].size};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = trains ? kTrain : 1;  // a train is one message
    }
    const int segment = static_cast<int>(datagrams[0].size);
    for (const int socket : sockets)
        check(!trains || setsockopt(socket, SOL_UDP, UDP_SEGMENT, &segment, sizeof(segment)) == 0,
              "UDP_SEGMENT");
    const auto interval = static_cast<int64_t>(g_Period_ns / g_Channels * kTrain);
    int64_t due = now_ns();
    uint32_t channel = 0;
    uint64_t total = 0;
    sendUntilEnd(total, [&](uint64_t& sent) {
        while (now_ns() < due) {
        }
        const int done = sendmmsg(sockets[channel], messages, trains ? 1 : kTrain, 0);
        sent += static_cast<uint64_t>(std::max(done, 0)) * (trains ? kTrain : 1);
        due = std::max(due + interval, now_ns() - kCatchUp_ns);
        channel = (channel + 1) % g_Channels;
    });
}

// Storage of one recvmmsg() call.
struct Batch {
    mmsghdr messages[kBatch]{};
    iovec vectors[kBatch]{};
    alignas(cmsghdr) uint8_t controls[kBatch][64];
    uint8_t slots[kBatch][2048];

    // cppcheck-suppress uninitMemberVar ; what the kernel fills stays without memory until then
    Batch() {
        for (int i = 0; i < kBatch; ++i) {
            vectors[i] = {slots[i], sizeof(slots[i])};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }
    int receive(int socket) { return recvmmsg(socket, messages, kBatch, MSG_DONTWAIT, nullptr); }
};

void receiveEpoll() {
    const std::vector<int> sockets = openSockets(true);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (const int socket : sockets) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = socket;
        check(epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
    }
    const auto batch = std::make_unique<Batch>();
    for (;;) {
        epoll_event events[16];
        const int ready = epoll_wait(epoll, events, 16, -1);
        for (int i = 0; i < ready; ++i)
            batch->receive(events[i].data.fd);
    }
}

void drain(useconds_t sleep_us) {
    prctl(PR_SET_TIMERSLACK, 1);
    const std::vector<int> sockets = openSockets(true);
    const auto batch = std::make_unique<Batch>();
    for (;;) {
        for (const int socket : sockets)
            while (batch->receive(socket) == kBatch) {
            }
        if (sleep_us != 0)
            usleep(sleep_us);
    }
}

int64_t stampOf(msghdr& message) {
    const cmsghdr* const part = CMSG_FIRSTHDR(&message);
    if (part == nullptr || part->cmsg_type != SCM_TIMESTAMPNS)
        return 0;
    timespec time;
    memcpy(&time, CMSG_DATA(part), sizeof(time));
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// FILE has kStamps nanoseconds of CLOCK_REALTIME for each channel, each at the place that the
// datagram's own number gives; 0 stands for one that did not come.
void receiveStamps() {
    constexpr useconds_t kPause_us = 5000;  // the stamps are the kernel's: reading late is no harm
    const int file = g_Last != nullptr ? open(g_Last, O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1;
    const size_t size = sizeof(int64_t) * kStamps * g_Channels;
    check(file >= 0 && ftruncate(file, static_cast<off_t>(size)) == 0, "file");
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    check(memory != MAP_FAILED, "mmap");
    auto* const stamps = static_cast<int64_t*>(memory);
    const std::vector<int> sockets = openSockets(true);
    const int on = 1;
    for (const int socket : sockets)
        check(setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) == 0, "timestamps");
    const auto batch = std::make_unique<Batch>();
    std::vector<uint64_t> last(g_Channels);
    for (;; usleep(kPause_us))
        for (uint32_t channel = 0; channel < g_Channels; ++channel) {
            for (int i = 0; i < kBatch; ++i) {
                batch->messages[i].msg_hdr.msg_control = batch->controls[i];
                batch->messages[i].msg_hdr.msg_controllen = sizeof(batch->controls[i]);
            }
            const int got = batch->receive(sockets[channel]);
            for (int i = 0; i < got; ++i) {
                const uint32_t length = batch->messages[i].msg_len;
                uint64_t number = kStamps;
                if (length >= kPayloadBytes)
                    number = numberOf(batch->slots[i] + length - kPayloadBytes);
                // Of a program that cuts the stream elsewhere, the order of arrival counts.
                if (number >= kStamps)
                    number = std::min<uint64_t>(last[channel] + 1, kStamps - 1);
                last[channel] = number;
                stamps[channel * size_t{kStamps} + number] = stampOf(batch->messages[i].msg_hdr);
            }
        }
}

constexpr struct {
    const char* name;
    void (*run)();
} kRoutines[] = {{"bursts", sendBursts},
                 {"spread", sendSpread},
                 {"trains", [] { sendFlood(true); }},
                 {"singles", [] { sendFlood(false); }},
                 {"unpaced", sendUnpaced},
                 {"epoll", receiveEpoll},
                 {"drain", [] { drain(kTick_us); }},
                 {"spin", [] { drain(0); }},
                 {"stamps", receiveStamps}};

}  // namespace

int main(int argc, char** argv) {
    for (const auto& routine : kRoutines)
        if (argc >= 5 && strcmp(argv[1], routine.name) == 0) {
            g_Channels = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
            g_Period_ns = kPayloadBytes * 8 * 1e9 / strtod(argv[3], nullptr);
            g_HeaderBytes = strcmp(argv[4], "rtp") == 0 ? kRtpHeaderBytes : 0;
            g_Last = argc > 5 ? argv[5] : nullptr;
            const double seconds = g_Last != nullptr ? strtod(g_Last, nullptr) : 1e9;
            g_End_ns = now_ns() + static_cast<int64_t>(seconds * 1e9);
            try {
                routine.run();
                return 0;
            } catch (const std::exception& error) {
                fprintf(stderr, "traffic: %s\n", error.what());
                return 1;
            }
        }
    fprintf(stderr, "usage: traffic ROUTINE CHANNELS RATE_BPS raw|rtp [SECONDS|FILE]\n");
    return 2;
}

#include "Traffic.h"

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
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <numeric>
#include <sstream>
#include <vector>

#include "Measure.h"

namespace {

constexpr int kBatch = 64;
constexpr uint32_t kTrain = 16;  // datagrams of one flood burst
constexpr uint32_t kSlotBytes = 2048;
constexpr useconds_t kTick_us = 1000;

int g_BoardFile = -1;

// Storage of one recvmmsg() call.
struct Batch {
    mmsghdr messages[kBatch]{};
    iovec vectors[kBatch]{};
    alignas(cmsghdr) uint8_t controls[kBatch][64];
    uint8_t slots[kBatch][kSlotBytes];

    // cppcheck-suppress uninitMemberVar ; what the kernel fills stays without memory until then
    Batch() {
        for (int i = 0; i < kBatch; ++i) {
            vectors[i] = {slots[i], kSlotBytes};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }

    int receive(int socket) { return recvmmsg(socket, messages, kBatch, MSG_DONTWAIT, nullptr); }
};

sockaddr_in addressOf(uint32_t channel) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(kFirstPort + channel));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int openSocket() {
    const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (file < 0)
        throw Failure(std::string("socket: ") + strerror(errno));
    return file;
}

int connectTo(uint32_t channel) {
    const int file = openSocket();
    const sockaddr_in address = addressOf(channel);
    if (connect(file, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        throw Failure(std::string("connect: ") + strerror(errno));
    return file;
}

std::vector<int> openAll(uint32_t channels, bool receive) {
    std::vector<int> sockets;
    for (uint32_t channel = 0; channel < channels; ++channel)
        sockets.push_back(receive ? listenAt(channel, kReceiveBuffer) : connectTo(channel));
    return sockets;
}

void fillHeader(uint8_t* header, uint64_t number) {
    const uint8_t bytes[kHeaderBytes] = {0x80, 33, static_cast<uint8_t>(number >> 8),
                                         static_cast<uint8_t>(number)};
    memcpy(header, bytes, sizeof(bytes));
}

void count(std::atomic<uint64_t>& counter, int more) {
    if (more > 0)
        counter.fetch_add(static_cast<uint64_t>(more), std::memory_order_relaxed);
}

bool stopped(const Board& shared) {
    return shared.stop.load(std::memory_order_relaxed) != 0;
}

// Wakes the thread 1 ms after the call and not, as is the default, up to 50 us later.
void sharpenSleep() {
    prctl(PR_SET_TIMERSLACK, 1);
}

}  // namespace

void shareBoard(const char* file) {
    g_BoardFile = open(file, O_RDWR | O_CLOEXEC);
    if (g_BoardFile < 0 || ftruncate(g_BoardFile, sizeof(Board)) != 0)
        throw Failure(std::string(file) + ": " + strerror(errno));
}

Board& board() {
    static void* const memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
             MAP_SHARED | (g_BoardFile < 0 ? MAP_ANONYMOUS : 0), g_BoardFile, 0);
    if (memory == MAP_FAILED)
        throw Failure(std::string("mmap: ") + strerror(errno));
    static Board& object = *new (memory) Board;
    return object;
}

void clearBoard() {
    madvise(&board(), sizeof(Board), MADV_REMOVE);  // pages of zeros take the place of these
}

uint64_t total(const std::atomic<uint64_t> (&counts)[kStreams]) {
    return std::accumulate(std::begin(counts), std::end(counts), uint64_t{0});
}

void fillPackets(uint8_t* data, uint32_t packets) {
    constexpr uint32_t kPacket = 188;
    memset(data, 0xFF, size_t{packets} * kPacket);
    const uint8_t header[] = {0x47, 0x1F, 0xFF, 0x10};
    for (uint32_t packet = 0; packet < packets; ++packet)
        memcpy(data + size_t{packet} * kPacket, header, sizeof(header));
}

int listenAt(uint32_t channel, int bufferBytes) {
    const int file = openSocket();
    const sockaddr_in address = addressOf(channel);
    if (setsockopt(file, SOL_SOCKET, SO_RCVBUFFORCE, &bufferBytes, sizeof(bufferBytes)) != 0 ||
        bind(file, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        throw Failure(std::string("socket of port ") + std::to_string(kFirstPort + channel) + ": " +
                      strerror(errno));
    return file;
}

namespace {

// `wait(start_ns)` is called after each round.
template <typename Wait>
void sendDue(Board& shared, Load load, Wait wait) {
    sharpenSleep();
    const std::vector<int> sockets = openAll(load.channels, false);
    uint8_t datagram[kDatagramBytes];
    fillPackets(datagram + kHeaderBytes, 7);
    const double period = load.period_ns();
    std::vector<uint64_t> first(shared.sent, shared.sent + load.channels);
    const int64_t start = now_ns();
    while (!stopped(shared)) {
        const auto elapsed = static_cast<double>(now_ns() - start);
        for (uint32_t channel = 0; channel < load.channels; ++channel) {
            const double phase = period * channel / load.channels;
            const uint64_t due =
                first[channel] +
                (elapsed < phase ? 0 : static_cast<uint64_t>((elapsed - phase) / period));
            uint64_t sent = shared.sent[channel].load(std::memory_order_relaxed);
            for (; sent < due; ++sent) {
                fillHeader(datagram, sent);
                send(sockets[channel], datagram, sizeof(datagram), 0);
            }
            shared.sent[channel].store(sent, std::memory_order_relaxed);
        }
        wait(start);
    }
}

}  // namespace

void sendPaced(Board& shared, Load load) {
    sendDue(shared, load, [](int64_t) { usleep(kTick_us); });
}

void sendSpread(Board& shared, Load load) {
    sendDue(shared, load, [](int64_t) {});
}

void sendOneByOne(Board& shared, Load load) {
    const double gap_ns = load.period_ns() / load.channels;
    sendDue(shared, load, [=](int64_t start) {
        const double next = std::floor(static_cast<double>(now_ns() - start) / gap_ns) + 1;
        const int64_t due = start + static_cast<int64_t>(next * gap_ns);
        const timespec time{due / 1'000'000'000, due % 1'000'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
    });
}

void sendUnpaced(Board& /*shared*/, Load /*load*/) {
    const int socket = connectTo(0);
    uint8_t datagram[kDatagramBytes];
    fillPackets(datagram + kHeaderBytes, 7);
    fillHeader(datagram, 0);
    for (;;)
        send(socket, datagram, sizeof(datagram), 0);
}

void sendFlood(Board& shared, Load load, bool trains) {
    // Behind by more than this, it does not catch up: the run then counts as of a lower rate. A
    // burst of all that was missed would fill any receiver's buffer.
    constexpr int64_t kCatchUp_ns = 2'000'000;
    const std::vector<int> sockets = openAll(load.channels, false);
    const int segment = kDatagramBytes;
    for (const int socket : sockets)
        if (trains && setsockopt(socket, SOL_UDP, UDP_SEGMENT, &segment, sizeof(segment)) != 0)
            throw Failure(std::string("UDP_SEGMENT: ") + strerror(errno));

    // A train is one message of all datagrams.
    uint8_t datagrams[kTrain][kDatagramBytes];
    iovec vectors[kTrain];
    mmsghdr messages[kTrain]{};
    for (uint32_t i = 0; i < kTrain; ++i) {
        fillPackets(datagrams[i] + kHeaderBytes, 7);
        vectors[i] = {datagrams[i], kDatagramBytes};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = trains ? kTrain : 1;
    }
    const auto interval = static_cast<int64_t>(load.period_ns() / load.channels * kTrain);
    int64_t due = now_ns();
    for (uint32_t channel = 0; !stopped(shared); channel = (channel + 1) % load.channels) {
        const uint64_t first = shared.sent[channel].load(std::memory_order_relaxed);
        for (uint32_t i = 0; i < kTrain; ++i)
            fillHeader(datagrams[i], first + i);
        while (now_ns() < due) {
        }
        const int sent = sendmmsg(sockets[channel], messages, trains ? 1 : kTrain, 0);
        count(shared.sent[channel], trains && sent == 1 ? int{kTrain} : sent);
        due = std::max(due + interval, now_ns() - kCatchUp_ns);
    }
}

void receiveEpoll(Board& shared, Load load) {
    const std::vector<int> sockets = openAll(load.channels, true);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (uint32_t channel = 0; channel < load.channels; ++channel) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = channel;
        if (epoll_ctl(epoll, EPOLL_CTL_ADD, sockets[channel], &event) != 0)
            throw Failure(std::string("epoll_ctl: ") + strerror(errno));
    }
    const auto batch = std::make_unique<Batch>();
    shared.ready = 1;
    for (;;) {
        epoll_event events[kStreams];
        const int ready = epoll_wait(epoll, events, kStreams, -1);
        for (int i = 0; i < ready; ++i) {
            const uint32_t channel = events[i].data.u32;
            count(shared.received[channel], batch->receive(sockets[channel]));
        }
    }
}

namespace {

void drain(Board& shared, Load load, useconds_t sleep_us) {
    sharpenSleep();
    const std::vector<int> sockets = openAll(load.channels, true);
    const auto batch = std::make_unique<Batch>();
    shared.ready = 1;
    for (;;) {
        for (uint32_t channel = 0; channel < load.channels; ++channel)
            for (int got = kBatch; got == kBatch;) {
                got = batch->receive(sockets[channel]);
                count(shared.received[channel], got);
            }
        if (sleep_us != 0)
            usleep(sleep_us);
    }
}

}  // namespace

void receiveDrain(Board& shared, Load load) {
    drain(shared, load, kTick_us);
}

void receiveSpinning(Board& shared, Load load) {
    drain(shared, load, 0);
}

namespace {

int64_t stampOf(msghdr& message) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_TIMESTAMPNS)
            continue;
        timespec time;
        memcpy(&time, CMSG_DATA(part), sizeof(time));
        return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    }
    return 0;
}

// Places datagrams by their 16-bit sequence numbers, relative to the first one.
struct Sequence {
    bool started = false;
    uint16_t last = 0;
    uint64_t place = 0;

    uint64_t next(const uint8_t* data, uint32_t length) {
        const bool rtp = length == kDatagramBytes && data[0] == 0x80;
        const auto number = static_cast<uint16_t>(rtp ? data[2] << 8 | data[3] : last + 1);
        place += started ? static_cast<uint16_t>(number - last) : 0;
        started = true;
        last = number;
        return place;
    }
};

}  // namespace

void receiveStamps(Board& shared, Load load) {
    constexpr useconds_t kPause_us = 5000;  // the stamps are the kernel's: reading late is no harm
    const std::vector<int> sockets = openAll(load.channels, true);
    for (const int socket : sockets) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
    }
    const auto batch = std::make_unique<Batch>();
    Sequence sequences[kStreams];
    shared.ready = 1;
    for (;;) {
        for (uint32_t channel = 0; channel < load.channels; ++channel) {
            for (int i = 0; i < kBatch; ++i) {
                batch->messages[i].msg_hdr.msg_control = batch->controls[i];
                batch->messages[i].msg_hdr.msg_controllen = sizeof(batch->controls[i]);
            }
            const int got = batch->receive(sockets[channel]);
            for (int i = 0; i < got; ++i) {
                const uint64_t place =
                    sequences[channel].next(batch->slots[i], batch->messages[i].msg_len);
                if (place < kStamps)
                    shared.stamps[channel][place].store(stampOf(batch->messages[i].msg_hdr),
                                                        std::memory_order_relaxed);
            }
            count(shared.received[channel], got);
        }
        usleep(kPause_us);
    }
}

uint64_t udpCount(const std::string& name) {
    std::ifstream table("/proc/net/snmp");
    std::string line;
    // Two lines begin with "Udp:": the names, and the numbers in the same order.
    while (std::getline(table, line) && !line.starts_with("Udp:")) {
    }
    std::istringstream names(line);
    std::getline(table, line);
    std::istringstream numbers(line);
    for (std::string title, number; names >> title && numbers >> number;)
        if (title == name)
            return std::stoull(number);
    throw Failure("the kernel has no UDP count " + name);
}

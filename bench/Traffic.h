// The traffic, and the bare loops that the module is compared with. Each routine is the life of one
// child process; it goes on until the process is ended, unless it says otherwise.
#ifndef BENCH_TRAFFIC_H
#define BENCH_TRAFFIC_H

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <string>

inline constexpr uint32_t kStreams = 16;
inline constexpr uint32_t kPayloadBytes = 7 * 188;  // what a datagram carries: seven packets
inline constexpr uint32_t kHeaderBytes = 12;        // RTP
inline constexpr uint32_t kDatagramBytes = kHeaderBytes + kPayloadBytes;
// One port per channel, all on 127.0.0.1: the bench has the network for itself.
inline constexpr uint16_t kFirstPort = 5000;
// The same for every side; the module's socket library asks for as much.
inline constexpr int kReceiveBuffer = 8 << 20;

// So many streams, each of that rate; rates count payload only.
struct Load {
    uint32_t channels;
    double rate_bps;

    double period_ns() const { return kPayloadBytes * 8 * 1e9 / rate_bps; }
};

inline constexpr uint32_t kStamps = 1 << 17;

// What the processes of one run tell each other. The counts are relaxed atomics: they are looked at
// while they grow, and nothing else is read on the strength of them.
struct Board {
    std::atomic<uint32_t> ready{0};  // the receiver is: its sockets are open
    std::atomic<uint32_t> stop{0};   // asks a sender of traffic to end
    std::atomic<uint64_t> sent[kStreams]{};
    std::atomic<uint64_t> received[kStreams]{};
    double result{};  // of a child that has ended
    // Arrival of each datagram by the kernel's clock (CLOCK_REALTIME), in nanoseconds, at the place
    // that its sequence number gives; 0 = did not arrive.
    std::atomic<int64_t> stamps[kStreams][kStamps]{};
};

// The one board, in memory that this process and its children share.
Board& board();
// Called before board(), it puts the board into a file, where other processes can map it.
void shareBoard(const char* file);
void clearBoard();  // for the next run, when the processes of the one before have ended

uint64_t total(const std::atomic<uint64_t> (&counts)[kStreams]);

// The packets of a stream: null packets, as far as the eye reaches.
void fillPackets(uint8_t* data, uint32_t packets);

// One loop over all sockets: sends what is due, sleeps for 1 ms. The streams are spread evenly over
// a datagram's period. Ends when it is asked to stop.
void sendPaced(Board& shared, Load load);
// The same without the sleep: every datagram leaves when it is due.
void sendSpread(Board& shared, Load load);
// The same, but sleeps until the next datagram is due.
void sendOneByOne(Board& shared, Load load);
// One stream over one socket, as fast as send() goes.
void sendUnpaced(Board& shared, Load load);
// Keeps to the sum of the rates without sleeping, in short bursts over all sockets: `trains` lets
// the kernel cut datagrams out of longer buffers, else each is handed over on its own. Ends when it
// is asked to stop.
void sendFlood(Board& shared, Load load, bool trains);

// One loop over all sockets: waits with epoll, and takes batches from those that are readable.
void receiveEpoll(Board& shared, Load load);
// One loop over all sockets: takes what is there, sleeps for 1 ms.
void receiveDrain(Board& shared, Load load);
// Takes what is there without ever sleeping, so that no sender has to wake it up.
void receiveSpinning(Board& shared, Load load);
// Writes down when each datagram arrived, by its RTP sequence number or else in order of arrival.
void receiveStamps(Board& shared, Load load);

// Bound to the channel's port.
int listenAt(uint32_t channel, int bufferBytes);

// One of the kernel's counts of the network namespace: NoPorts (datagrams that found no socket) or
// RcvbufErrors (that found it full). All of them are ours.
uint64_t udpCount(const std::string& name);

#endif

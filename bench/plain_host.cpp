// plain_host MODE NUMBER CHANNELS raw|rtp: a host as a newcomer writes it, with channels on
// 127.0.0.1 from port 5000 on. It goes on until it is killed.
//
//   send BITRATE_BPS     feeds all send channels from one thread, every 40 ms
//   unpaced BITRATE_BPS  lets one channel fall 8 s behind, then gives it what it takes
//   blocking KIB         has a thread for each receive channel, which waits for so much at a time
//   poll MILLISECONDS    reads from one thread, with that pause, what all receive channels have
//   idle-send BITRATE_BPS, idle-receive 0    starts the channels and does nothing
//
// A host that receives prints how many datagrams its channels have dropped, when some were.
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "Packets.h"
#include "QXV_RTP.h"

namespace {

using namespace std::chrono_literals;
using std::this_thread::sleep_for;

constexpr uint32_t kChunk = 100;  // datagrams that are fed at a time

void* g_Module;
uint32_t g_Channels;

bool Start(uint32_t direction, uint32_t channel, uint32_t bitrate_bps, bool rtp) {
    RtpChannelConfig config{};
    strcpy(config.LocalAddress, "127.0.0.1");
    strcpy(config.RemoteAddress, "127.0.0.1");
    config.Rtp = rtp ? 1 : 0;
    config.Port = static_cast<uint16_t>(kFirstPort + channel);
    if (QXV_RTP_SetConfig(g_Module, direction, channel, &config) == 0)
        return false;
    if (direction == QXV_RTP_RECEIVE)
        return QXV_RTP_ReceiveStart(g_Module, channel) == 1;
    // Room for a quarter of a second.
    const uint32_t bytes = std::clamp(bitrate_bps / 32, 64U << 10, 4U << 20);
    return QXV_RTP_SendStart(g_Module, channel, bitrate_bps, bytes / QXV_RTP_BUFFER_UNIT) == 1;
}

// Keeps each channel 100 ms ahead, so that Send does not wait.
void Feed(uint32_t bitrate_bps) {
    using Clock = std::chrono::steady_clock;
    constexpr double kLead_s = 0.1;
    std::vector<uint8_t> packets(size_t{kChunk} * kPayloadBytes);
    const Clock::time_point start = Clock::now();
    for (uint64_t fed = 0;; sleep_for(40ms)) {
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        const double due_bits = (elapsed.count() + kLead_s) * bitrate_bps;
        const auto due = static_cast<uint64_t>(due_bits / 8 / kPayloadBytes);
        while (fed < due) {
            const auto count = static_cast<uint32_t>(std::min<uint64_t>(due - fed, kChunk));
            for (uint32_t i = 0; i < count; ++i)
                fillDatagram(&packets[size_t{i} * kPayloadBytes], fed++);
            for (uint32_t channel = 0; channel < g_Channels; ++channel)
                QXV_RTP_Send(g_Module, channel, packets.data(), count * kPayloadBytes);
        }
    }
}

// All is due then. The channel's thread keeps its processors for itself: the host moves away.
void FeedUnpaced() {
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    sched_setaffinity(0, sizeof(first), &first);
    std::vector<uint8_t> packets(size_t{kChunk} * kPayloadBytes);
    for (uint32_t i = 0; i < kChunk; ++i)
        fillDatagram(&packets[size_t{i} * kPayloadBytes], i);
    const auto size = static_cast<uint32_t>(packets.size());
    QXV_RTP_Send(g_Module, 0, packets.data(), size);
    sleep_for(8s);
    while (QXV_RTP_Send(g_Module, 0, packets.data(), size) == 1) {
    }
}

QXV_RTP_Statistics Statistics(uint32_t channel) {
    QXV_RTP_Statistics statistics{};
    statistics.Size = sizeof(statistics);
    QXV_RTP_GetStatistics(g_Module, QXV_RTP_RECEIVE, channel, &statistics);
    return statistics;
}

void TellDropped(uint64_t dropped) {
    static uint64_t told = 0;
    if (dropped == told)
        return;
    told = dropped;
    printf("%llu\n", static_cast<unsigned long long>(told));
    fflush(stdout);
}

void ReadBlocking(uint32_t channel, uint32_t bytes) {
    std::vector<uint8_t> data(bytes);
    while (QXV_RTP_Receive(g_Module, channel, data.data(), bytes) == 1) {
    }
}

void ReadInThreads(uint32_t bytes) {
    std::vector<std::thread> readers;
    for (uint32_t channel = 0; channel < g_Channels; ++channel)
        readers.emplace_back(ReadBlocking, channel, bytes);
    for (;; sleep_for(1s)) {
        uint64_t dropped = 0;
        for (uint32_t channel = 0; channel < g_Channels; ++channel)
            dropped += Statistics(channel).DatagramsDropped;
        TellDropped(dropped);
    }
}

void Poll(std::chrono::milliseconds pause) {
    constexpr uint32_t kMost = 64 << 10;
    std::vector<uint8_t> data(kMost);
    for (;; sleep_for(pause)) {
        uint64_t dropped = 0;
        for (uint32_t channel = 0; channel < g_Channels; ++channel) {
            const QXV_RTP_Statistics statistics = Statistics(channel);
            dropped += statistics.DatagramsDropped;
            // Only what is there, so that no channel waits for another.
            for (uint32_t left = statistics.BufferedBytes; left != 0;) {
                const uint32_t size = std::min(left, kMost);
                QXV_RTP_Receive(g_Module, channel, data.data(), size);
                left -= size;
            }
        }
        TellDropped(dropped);
    }
}

}  // namespace

int main(int argc, char** argv) {
    g_Module = QXV_RTP_Create(0);
    if (g_Module == nullptr || argc != 5) {
        fprintf(stderr, "usage: plain_host MODE NUMBER CHANNELS raw|rtp, see its source\n");
        return 2;
    }
    const std::string_view mode = argv[1];
    const auto number = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    g_Channels = static_cast<uint32_t>(strtoul(argv[3], nullptr, 10));
    const bool sends = mode == "send" || mode == "unpaced" || mode == "idle-send";
    for (uint32_t channel = 0; channel < g_Channels; ++channel)
        if (!Start(sends ? QXV_RTP_SEND : QXV_RTP_RECEIVE, channel, number,
                   std::string_view(argv[4]) == "rtp")) {
            fprintf(stderr, "plain_host: channel %u does not start\n", channel);
            return 1;
        }
    if (mode == "send")
        Feed(number);
    else if (mode == "unpaced")
        FeedUnpaced();
    else if (mode == "blocking")
        ReadInThreads(number << 10);
    else if (mode == "poll")
        Poll(std::chrono::milliseconds(number));
    for (;;)
        sleep_for(1h);
}

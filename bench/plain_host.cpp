// plain_host MODE NUMBER: a host as a newcomer writes it, with 16 channels on 127.0.0.1.
//
//   send BITRATE_BPS   feeds all 16 send channels from one thread, every 40 ms
//   blocking KIB       has a thread for each receive channel, which waits until it has read so much
//   poll MILLISECONDS  reads from one thread, with that pause, what all receive channels have
//
// It goes on until SIGTERM; a receiving host then prints the bytes that it got.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "QXV_RTP.h"

// Older builds of the library, with which this one may be compared, do not have it.
#pragma weak QXV_RTP_GetStatistics

namespace {

constexpr uint16_t kFirstPort = 5000;
constexpr uint32_t kDatagram = 7 * 188;

void* g_Module;
std::atomic<bool> g_Stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);
std::atomic<uint64_t> g_Received{0};

bool Start(uint32_t direction, uint32_t channel, uint32_t bitrate_bps) {
    RtpChannelConfig config{};
    strcpy(config.LocalAddress, "127.0.0.1");
    strcpy(config.RemoteAddress, "127.0.0.1");
    config.Rtp = 1;
    config.Port = static_cast<uint16_t>(kFirstPort + channel);
    if (QXV_RTP_SetConfig(g_Module, direction, channel, &config) == 0)
        return false;
    if (direction == QXV_RTP_RECEIVE)
        return QXV_RTP_ReceiveStart(g_Module, channel) == 1;
    // Room for a quarter of a second.
    return QXV_RTP_SendStart(g_Module, channel, bitrate_bps, bitrate_bps / 32 / 256) == 1;
}

// Keeps each channel 100 ms ahead, so that Send does not wait.
void Feed(uint32_t bitrate_bps) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kStep{40};
    constexpr double kLead_s = 0.1;
    std::vector<uint8_t> packets(size_t{100} * kDatagram, 0xFF);  // null packets
    for (size_t packet = 0; packet < packets.size(); packet += 188)
        memcpy(&packets[packet], "\x47\x1F\xFF\x10", 4);
    const Clock::time_point start = Clock::now();
    for (uint64_t fed = 0; !g_Stop; std::this_thread::sleep_for(kStep)) {
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        const double due_bits = (elapsed.count() + kLead_s) * bitrate_bps;
        const auto due = static_cast<uint64_t>(due_bits / 8 / kDatagram) * kDatagram;
        while (fed < due) {
            const auto size = static_cast<uint32_t>(std::min<uint64_t>(due - fed, packets.size()));
            for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel)
                QXV_RTP_Send(g_Module, channel, packets.data(), size);
            fed += size;
        }
    }
}

void ReadBlocking(uint32_t channel, uint32_t bytes) {
    std::vector<uint8_t> data(bytes);
    while (QXV_RTP_Receive(g_Module, channel, data.data(), bytes) == 1)
        g_Received += bytes;
}

uint32_t Buffered(uint32_t channel) {
    QXV_RTP_Statistics statistics{};
    statistics.Size = sizeof(statistics);
    QXV_RTP_GetStatistics(g_Module, QXV_RTP_RECEIVE, channel, &statistics);
    return statistics.BufferedBytes;
}

void Poll(std::chrono::milliseconds pause) {
    constexpr uint32_t kMost = 64 << 10;
    std::vector<uint8_t> data(kMost);
    for (; !g_Stop; std::this_thread::sleep_for(pause))
        for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel) {
            // Only what is there, so that no channel waits for another.
            for (uint32_t left = Buffered(channel); left != 0;) {
                const uint32_t size = std::min(left, kMost);
                QXV_RTP_Receive(g_Module, channel, data.data(), size);
                g_Received += size;
                left -= size;
            }
        }
}

// Makes waiting calls return 0.
void OnTerminate(int) {
    g_Stop = true;
    // NOLINTNEXTLINE(bugprone-signal-handler,cert-sig30-c): cancelling takes no lock
    QXV_RTP_Cancel(g_Module);
}

}  // namespace

int main(int argc, char** argv) {
    const char* const mode = argc == 3 ? argv[1] : "";
    const auto number = static_cast<uint32_t>(argc == 3 ? strtoul(argv[2], nullptr, 10) : 0);
    const bool send = strcmp(mode, "send") == 0;
    const bool poll = strcmp(mode, "poll") == 0;
    g_Module = QXV_RTP_Create(0);
    if (g_Module == nullptr || number == 0 || (!send && !poll && strcmp(mode, "blocking") != 0)) {
        fprintf(stderr, "usage: plain_host send BITRATE_BPS | blocking KIB | poll MILLISECONDS\n");
        return 2;
    }
    if (poll && QXV_RTP_GetStatistics == nullptr) {
        fprintf(stderr, "plain_host: this build of the library has no statistics\n");
        return 1;
    }
    signal(SIGTERM, OnTerminate);
    for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel)
        if (!Start(send ? QXV_RTP_SEND : QXV_RTP_RECEIVE, channel, number)) {
            fprintf(stderr, "plain_host: channel %u does not start\n", channel);
            return 1;
        }
    if (send)
        Feed(number);
    else if (poll)
        Poll(std::chrono::milliseconds(number));
    else {
        std::vector<std::thread> readers;
        for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel)
            readers.emplace_back(ReadBlocking, channel, number << 10);
        for (std::thread& reader : readers)
            reader.join();
    }
    for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel)
        send ? QXV_RTP_SendEnd(g_Module, channel) : QXV_RTP_ReceiveEnd(g_Module, channel);
    if (!send)
        printf("%llu\n", static_cast<unsigned long long>(g_Received));
    QXV_RTP_Destroy(g_Module);
    return 0;
}

// qxvrtp-soak SECONDS: all 16 send and 16 receive channels at 8 Mbit/s each on loopback, and
// whether anything is lost, drifts or grows. Needs the network for itself: scripts/soak.sh.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "QXV_RTP.h"

namespace {

constexpr uint32_t kBitrate_bps = 8'000'000;
constexpr uint32_t kPacketBytes = 188;
constexpr uint32_t kDatagramBytes = 7 * kPacketBytes;
constexpr double kPeriod_s = kDatagramBytes * 8.0 / kBitrate_bps;
constexpr int kWarmUp_s = 10;  // all rings have then been gone through twice
constexpr double kRate_ppm = 5.0;
constexpr double kGrain_s = 0.0005;  // of the measurement on a busy machine, which short runs show
constexpr long kGrowth_KiB = 512;

void* g_Module;

using Datagram = std::array<uint8_t, kDatagramBytes>;

// No two datagrams of all channels are alike.
Datagram makeDatagram(uint32_t channel, uint64_t number) {
    Datagram datagram;
    for (uint32_t packet = 0; packet < 7; ++packet) {
        uint8_t* const data = datagram.data() + size_t{packet} * kPacketBytes;
        memset(data, static_cast<int>(number * 7 + packet), kPacketBytes);
        data[0] = 0x47;
        data[1] = static_cast<uint8_t>(channel);
        memcpy(data + 4, &number, sizeof(number));
    }
    return datagram;
}

// The clock by which the module paces.
double now_s() {
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A stream from its sender to its receiver.
class Stream {
  public:
    explicit Stream(uint32_t channel) : channel_(channel) {
        RtpChannelConfig config{"127.0.0.1", "127.0.0.1", 0, channel % 2 == 1, 1, 0, 0, 0};
        config.Port = static_cast<uint16_t>(5000 + channel);
        if (QXV_RTP_SetConfig(g_Module, QXV_RTP_SEND, channel, &config) == 0 ||
            QXV_RTP_SetConfig(g_Module, QXV_RTP_RECEIVE, channel, &config) == 0)
            throw std::runtime_error("a configuration is refused");
        QXV_RTP_ReceiveStart(g_Module, channel);
    }
    bool isOpen() const { return statistics(QXV_RTP_RECEIVE).SocketOpen == 1; }
    void start() const { QXV_RTP_SendStart(g_Module, channel_, kBitrate_bps, 4096); }

    void feed() {
        const uint32_t room = statistics(QXV_RTP_SEND).FreeBytes / kDatagramBytes;
        for (uint32_t i = 0; i < room; ++i)
            QXV_RTP_Send(g_Module, channel_, makeDatagram(channel_, fed_++).data(), kDatagramBytes);
    }
    // `part` of the measured time has passed: below 0 before it, up to 1.
    void read(double elapsed_s, double part) {
        const uint32_t held = statistics(QXV_RTP_RECEIVE).BufferedBytes / kDatagramBytes;
        const uint64_t arrived = received_ + held;
        if (part >= 0 && part < 1) {
            double& lead_s = lead_s_.at(static_cast<size_t>(part * 3));
            lead_s = std::max(lead_s, static_cast<double>(arrived) * kPeriod_s - elapsed_s);
        }
        for (Datagram datagram; received_ < arrived; ++received_) {
            QXV_RTP_Receive(g_Module, channel_, datagram.data(), kDatagramBytes);
            if (datagram != makeDatagram(channel_, received_))
                throw std::runtime_error("channel " + std::to_string(channel_) +
                                         ": lost or changed, datagram " +
                                         std::to_string(received_));
        }
    }
    // By how much the stream gets ahead of the clock from the first third to the last. What the
    // machine does with a datagram delays it, and never the opposite: so the least delayed one of
    // each counts.
    double gain_s() const { return lead_s_[2] - lead_s_[0]; }
    uint64_t received() const { return received_; }

  private:
    QXV_RTP_Statistics statistics(uint32_t direction) const {
        QXV_RTP_Statistics statistics{};
        statistics.Size = sizeof(statistics);
        QXV_RTP_GetStatistics(g_Module, direction, channel_, &statistics);
        return statistics;
    }

    const uint32_t channel_;
    uint64_t fed_ = 0;
    uint64_t received_ = 0;
    std::array<double, 3> lead_s_{-INFINITY, -INFINITY, -INFINITY};
};

struct Footprint {
    long memory_KiB, descriptors, threads;
};

Footprint footprint() {
    const auto entries = [](const char* folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return {pages * sysconf(_SC_PAGESIZE) / 1024, entries("/proc/self/fd"),
            entries("/proc/self/task")};
}

// True when nothing was lost, nothing drifts and nothing has grown.
bool soak(int seconds) {
    std::vector<Stream> streams;
    for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel)
        streams.emplace_back(channel);
    while (!std::ranges::all_of(streams, &Stream::isOpen))
        usleep(1000);
    for (Stream& stream : streams)
        stream.start();
    const double start_s = now_s();
    Footprint first{};
    Footprint last{};
    const double measured_s = seconds - kWarmUp_s;
    for (int second = 0; second < seconds; usleep(1000)) {
        const double elapsed_s = now_s() - start_s;
        for (Stream& stream : streams) {
            stream.feed();
            stream.read(now_s() - start_s, (elapsed_s - kWarmUp_s) / measured_s);
        }
        if (elapsed_s < second + 1)
            continue;
        last = footprint();
        if (++second <= kWarmUp_s)
            first = last;
    }
    double worst_ppm = 0;
    double received_s = 0;  // of the mean stream
    for (const Stream& stream : streams) {
        received_s += static_cast<double>(stream.received()) * kPeriod_s / QXV_RTP_CHANNELS;
        worst_ppm = std::max(worst_ppm, std::abs(stream.gain_s()) / (measured_s * 2 / 3) * 1e6);
    }
    const double share = received_s / seconds;
    std::printf(
        "%d s: %.4f %% of the rate, none lost; drift up to %.2f ppm; memory %ld to %ld KiB, "
        "descriptors %ld to %ld, threads %ld to %ld\n",
        seconds, share * 100, worst_ppm, first.memory_KiB, last.memory_KiB, first.descriptors,
        last.descriptors, first.threads, last.threads);
    return worst_ppm < std::max(kRate_ppm, kGrain_s / (measured_s * 2 / 3) * 1e6) &&
           last.memory_KiB - first.memory_KiB < kGrowth_KiB &&
           last.descriptors == first.descriptors && last.threads == first.threads && share > 0.99;
}

}  // namespace

int main(int argc, char** argv) {
    const long given = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
    const int seconds = static_cast<int>(std::clamp(given, 0L, long{INT_MAX}));
    g_Module = QXV_RTP_Create(0);
    if (seconds < 2 * kWarmUp_s || g_Module == nullptr) {
        std::fprintf(stderr, "qxvrtp-soak SECONDS: from %d on\n", 2 * kWarmUp_s);
        return 2;
    }
    int status = 1;
    try {
        status = soak(seconds) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qxvrtp-soak: %s\n", error.what());
    }
    for (uint32_t channel = 0; channel < QXV_RTP_CHANNELS; ++channel) {
        QXV_RTP_SendEnd(g_Module, channel);
        QXV_RTP_ReceiveEnd(g_Module, channel);
    }
    return status;
}

#include "Peers.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

constexpr char kFile[] = "/tmp/qxvrtp-bench.ts";

std::string program(const std::string& peer) {
    return peer == "GStreamer" ? "gst-launch-1.0" : peer;
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

void append(std::vector<std::string>& to, const std::string& text) {
    for (std::string& word : words(text))
        to.push_back(std::move(word));
}

// A stream of null packets, and for multicat a list of the times, in units of 27 MHz and big-endian,
// at which its datagrams are due.
uint64_t writeFile(Load load, double seconds) {
    constexpr double kClock_Hz = 27e6;
    const auto datagrams = static_cast<uint64_t>(seconds * 1e9 / load.period_ns());
    std::vector<char> payload(kPayloadBytes);
    fillPackets(reinterpret_cast<uint8_t*>(payload.data()), 7);
    std::ofstream stream(kFile, std::ios::binary);
    std::ofstream times("/tmp/qxvrtp-bench.aux", std::ios::binary);
    for (uint64_t number = 0; number < datagrams; ++number) {
        stream.write(payload.data(), static_cast<std::streamsize>(payload.size()));
        const auto due =
            static_cast<uint64_t>(static_cast<double>(number) * load.period_ns() * kClock_Hz / 1e9);
        const uint64_t bigEndian = __builtin_bswap64(due);
        times.write(reinterpret_cast<const char*>(&bigEndian), sizeof(bigEndian));
    }
    stream.flush();
    if (!stream || !times.flush())
        throw Failure(fmt::format("{} cannot be written", kFile));
    return datagrams * kPayloadBytes;
}

Children onePerChannel(uint32_t channels, const std::function<std::string(uint16_t)>& command) {
    Children children;
    for (uint32_t channel = 0; channel < channels; ++channel)
        children.push_back(Child::execute(
            Place::Measured, words(command(static_cast<uint16_t>(kFirstPort + channel)))));
    return children;
}

Children oneForAll(uint32_t channels, const std::function<std::string(uint16_t)>& pipeline) {
    std::vector<std::string> command{"gst-launch-1.0", "-q"};
    for (uint32_t channel = 0; channel < channels; ++channel)
        append(command, pipeline(static_cast<uint16_t>(kFirstPort + channel)));
    Children children;
    children.push_back(Child::execute(Place::Measured, command));
    return children;
}

}  // namespace

bool isInstalled(const std::string& peer) {
    const char* const path = getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + "/" + program(peer)).c_str(), X_OK) == 0)
            return true;
    return false;
}

Children startReceivers(const std::string& peer, uint32_t channels) {
    if (peer == "multicat")
        return onePerChannel(channels, [](uint16_t port) {
            return fmt::format("multicat -U @127.0.0.1:{} /dev/null", port);
        });
    if (peer == "GStreamer")
        return oneForAll(channels, [](uint16_t port) {
            return fmt::format(
                "udpsrc address=127.0.0.1 port={} buffer-size={} ! fakesink sync=false", port,
                kReceiveBuffer);
        });
    return onePerChannel(channels, [](uint16_t port) {
        return fmt::format(
            "ffmpeg -nostdin -loglevel quiet -f data "
            "-i udp://127.0.0.1:{}?localaddr=127.0.0.1&buffer_size={} "
            "-map 0 -c copy -f data -y /dev/null",
            port, kReceiveBuffer);
    });
}

Children startSenders(const std::string& peer, Load load, double seconds) {
    const uint64_t size = writeFile(load, seconds);
    if (peer == "multicat")
        return onePerChannel(load.channels, [](uint16_t port) {
            return fmt::format("multicat {} 127.0.0.1:{}", kFile, port);
        });
    if (peer == "GStreamer")
        return oneForAll(load.channels, [&](uint16_t port) {
            return fmt::format(
                "filesrc location={} blocksize={} ! identity datarate={} ! "
                "video/mpegts,packetsize=188,systemstream=true ! rtpmp2tpay ! "
                "udpsink host=127.0.0.1 port={} sync=true",
                kFile, kPayloadBytes, static_cast<uint64_t>(load.rate_bps / 8), port);
        });
    // It reads the file at once; its queue, counted in packets of 188 bytes, must hold all of it.
    return onePerChannel(load.channels, [&](uint16_t port) {
        return fmt::format(
            "ffmpeg -nostdin -loglevel quiet -f data -raw_packet_size {0} -i {1} -map 0 -c copy "
            "-f data udp://127.0.0.1:{2}?pkt_size={0}&bitrate={3}&burst_bits={4}&fifo_size={5}",
            kPayloadBytes, kFile, port, static_cast<uint64_t>(load.rate_bps), kPayloadBytes * 8,
            size / 188 * 2);
    });
}

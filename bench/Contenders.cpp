#include "Contenders.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

constexpr char kFile[] = "/tmp/qxvrtp-bench.ts";

// A stream of null packets, and for multicat a list of the times, in units of 27 MHz and
// big-endian, at which its datagrams are due. Returns its size in packets.
uint64_t writeFile(Load load, double seconds) {
    const auto datagrams = static_cast<uint64_t>(seconds * 1e9 / load.period_ns());
    char payload[kPayloadBytes];
    fillPackets(reinterpret_cast<uint8_t*>(payload), 7);
    std::ofstream stream(kFile, std::ios::binary);
    std::ofstream times("/tmp/qxvrtp-bench.aux", std::ios::binary);
    for (uint64_t number = 0; number < datagrams; ++number) {
        stream.write(payload, sizeof(payload));
        const double due_27MHz = static_cast<double>(number) * load.period_ns() * 27e-3;
        const uint64_t bigEndian = __builtin_bswap64(static_cast<uint64_t>(due_27MHz));
        times.write(reinterpret_cast<const char*>(&bigEndian), sizeof(bigEndian));
    }
    if (!stream.flush() || !times.flush())
        throw Failure(fmt::format("{} cannot be written", kFile));
    return datagrams * 7;
}

// Starts a program once per channel; with a `first` part, which begins one command for all, once.
Children launch(uint32_t channels, const std::string& first,
                const std::function<std::string(int port)>& forPort) {
    Children children;
    std::string command = first;
    for (uint32_t channel = 0; channel < channels; ++channel) {
        command += forPort(static_cast<int>(kFirstPort + channel));
        if (!first.empty() && channel + 1 < channels)
            continue;
        std::istringstream words(command);
        children.push_back(
            Child::execute(Place::Measured, {std::istream_iterator<std::string>(words), {}}));
        command.clear();
    }
    return children;
}

Children startReceivers(const std::string& peer, Load load, double /*seconds*/) {
    if (peer == "multicat")
        return launch(load.channels, "", [](int port) {
            return fmt::format("multicat -U @127.0.0.1:{} /dev/null", port);
        });
    if (peer == "GStreamer")
        return launch(load.channels, "gst-launch-1.0 -q", [](int port) {
            return fmt::format(
                " udpsrc address=127.0.0.1 port={} buffer-size={} ! fakesink sync=false", port,
                kReceiveBuffer);
        });
    return launch(load.channels, "", [](int port) {
        return fmt::format(
            "ffmpeg -nostdin -f data -i udp://127.0.0.1:{}?localaddr=127.0.0.1&buffer_size={} "
            "-map 0 -c copy -f data -y /dev/null",
            port, kReceiveBuffer);
    });
}

Children startSenders(const std::string& peer, Load load, double seconds) {
    const uint64_t packets = writeFile(load, seconds);
    if (peer == "multicat")
        return launch(load.channels, "", [](int port) {
            return fmt::format("multicat {} 127.0.0.1:{}", kFile, port);
        });
    if (peer == "GStreamer")
        return launch(load.channels, "gst-launch-1.0 -q", [&](int port) {
            return fmt::format(
                " filesrc location={} blocksize={} ! identity datarate={:.0f} ! "
                "video/mpegts,packetsize=188,systemstream=true ! rtpmp2tpay ! "
                "udpsink host=127.0.0.1 port={} sync=true",
                kFile, kPayloadBytes, load.rate_bps / 8, port);
        });
    // It reads the file at once: its queue must hold all of it.
    return launch(load.channels, "", [&](int port) {
        return fmt::format(
            "ffmpeg -nostdin -f data -raw_packet_size {0} -i {1} -map 0 -c copy -f data "
            "udp://127.0.0.1:{2}?pkt_size={0}&bitrate={3:.0f}&burst_bits={4}&fifo_size={5}",
            kPayloadBytes, kFile, port, load.rate_bps, kPayloadBytes * 8, packets * 2);
    });
}

std::vector<Contender> installed(Children (*start)(const std::string&, Load, double)) {
    std::vector<Contender> contenders;
    for (const std::string peer : kPeers)
        if (isInstalled(peer))
            contenders.push_back(
                {peer, [=](Load load, double seconds) { return start(peer, load, seconds); },
                 false});
    return contenders;
}

}  // namespace

Contender makeOurs(const std::string& name, void (*routine)(Board&, Load), Place place) {
    return {name, [=](Load load, double) {
                Children children;
                children.push_back(Child::fork(place, [&] { routine(board(), load); }));
                return children;
            }};
}

bool isInstalled(const std::string& peer) {
    const char* const path = getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    const std::string program = peer == "GStreamer" ? "gst-launch-1.0" : peer;
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access(fmt::format("{}/{}", folder, program).c_str(), X_OK) == 0)
            return true;
    return false;
}

std::vector<Contender> peerReceivers() {
    return installed(startReceivers);
}

std::vector<Contender> peerSenders() {
    return installed(startSenders);
}

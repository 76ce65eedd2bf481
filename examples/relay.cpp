// relay FROM PORT TO PORT BITRATE: takes a stream of 188-byte packets, raw or under RTP, from one
// multicast group and sends it on under RTP to another address, paced to the bitrate.
#include <QXV_RTP.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

void* g_Module;

// Makes the waiting Receive, or Send, return 0.
extern "C" void OnSignal(int) {
    QXV_RTP_Cancel(g_Module);
}

void Configure(uint32_t direction, const std::string& address, const char* port, bool multicast) {
    RtpChannelConfig config{};
    const bool six = address.find(':') != std::string::npos;
    std::snprintf(config.LocalAddress, sizeof(config.LocalAddress), "%s", six ? "::" : "0.0.0.0");
    std::snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", address.c_str());
    config.Multicast = multicast ? 1 : 0;
    config.Rtp = 1;
    config.Ttl = 16;
    config.Port = static_cast<uint16_t>(std::strtoul(port, nullptr, 10));
    if (QXV_RTP_SetConfig(g_Module, direction, 0, &config) == 0)
        throw std::runtime_error("cannot be used: " + address);
}

void Relay(char** argv) {
    constexpr uint32_t kBufferUnits = 4096;  // 1 MiB
    Configure(QXV_RTP_RECEIVE, argv[1], argv[2], true);
    try {
        Configure(QXV_RTP_SEND, argv[3], argv[4], true);
    } catch (const std::runtime_error&) {
        Configure(QXV_RTP_SEND, argv[3], argv[4], false);
    }
    const auto bitrate = static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10));
    if (QXV_RTP_ReceiveStart(g_Module, 0) == 0 ||
        QXV_RTP_SendStart(g_Module, 0, bitrate, kBufferUnits) == 0)
        throw std::runtime_error("no bitrate: " + std::string(argv[5]));
    std::array<uint8_t, size_t{7} * 188> packets;
    while (QXV_RTP_Receive(g_Module, 0, packets.data(), packets.size()) != 0 &&
           QXV_RTP_Send(g_Module, 0, packets.data(), packets.size()) != 0) {
    }
}

}  // namespace

int main(int argc, char** argv) {
    g_Module = QXV_RTP_Create(0);
    if (argc != 6 || g_Module == nullptr) {
        std::fprintf(stderr, "usage: relay FROM PORT TO PORT BITRATE\n");
        return 2;
    }
    const std::unique_ptr<void, decltype(&QXV_RTP_Destroy)> handle(g_Module, &QXV_RTP_Destroy);
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    int result = 0;
    try {
        Relay(argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "relay: %s\n", error.what());
        result = 1;
    }
    QXV_RTP_ReceiveEnd(g_Module, 0);  // harmless where nothing was started
    QXV_RTP_SendEnd(g_Module, 0);
    return result;
}

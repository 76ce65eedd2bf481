#include "ModuleSide.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "Measure.h"
#include "QXV_RTP.h"
#include "RtpContextExt.h"

namespace {

std::string g_ModulePath;

constexpr double kSocketPatience_s = 5.0;  // housekeeping opens receive sockets once a second
constexpr useconds_t kHostPoll_us = 1000;
constexpr uint32_t kHostBlock = 512;  // datagrams' worth that the host reads or writes at most

#define BENCH_FUNCTION(name)         \
    decltype(&QXV_RTP_##name) name = \
        reinterpret_cast<decltype(&QXV_RTP_##name)>(symbol("QXV_RTP_" #name))

class Module {
    // First, since the functions below come from it.
    void* const library_ = dlopen(g_ModulePath.c_str(), RTLD_NOW | RTLD_LOCAL);

    void* symbol(const char* name) const {
        void* const address = library_ != nullptr ? dlsym(library_, name) : nullptr;
        if (address == nullptr)
            throw Failure(dlerror());
        return address;
    }

  public:
    BENCH_FUNCTION(Create);
    BENCH_FUNCTION(GetConfig);
    BENCH_FUNCTION(SetConfig);
    BENCH_FUNCTION(SendStart);
    BENCH_FUNCTION(Send);
    BENCH_FUNCTION(ReceiveStart);
    BENCH_FUNCTION(Receive);
    void* const handle = Create(0);

    // Points the channel at its port on 127.0.0.1, under RTP.
    void configure(uint32_t direction, uint32_t channel) const {
        RtpChannelConfig config;
        GetConfig(handle, direction, channel, &config);
        snprintf(config.LocalAddress, sizeof(config.LocalAddress), "127.0.0.1");
        snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "127.0.0.1");
        config.Multicast = 0;
        config.Rtp = 1;
        config.Port = static_cast<uint16_t>(kFirstPort + channel);
        if (SetConfig(handle, direction, channel, &config) == 0)
            throw Failure("the module refuses its configuration");
    }

    void startSend(uint32_t channel, uint32_t bitrate_bps) const {
        // A quarter of a second of the stream.
        const uint32_t bytes = std::clamp(bitrate_bps / 32, 64u << 10, 4u << 20);
        configure(QXV_RTP_SEND, channel);
        if (SendStart(handle, channel, bitrate_bps, bytes / QXV_RTP_BUFFER_UNIT) == 0)
            throw Failure("a send channel does not start");
    }

    void startReceive(uint32_t channels) const {
        for (uint32_t channel = 0; channel < channels; ++channel) {
            configure(QXV_RTP_RECEIVE, channel);
            if (ReceiveStart(handle, channel) == 0)
                throw Failure("a receive channel does not start");
        }
        waitForSockets(QXV_RTP_RECEIVE, channels);
    }

    void waitForSockets(uint32_t direction, uint32_t channels) const {
        const auto& records = static_cast<const RtpContext*>(handle)->Channels[direction];
        const bool open = waitFor(kSocketPatience_s, [&] {
            return std::all_of(records, records + channels,
                               [](const auto& record) { return record.Reopen.load() == 0; });
        });
        if (!open)
            throw Failure("the module does not open its sockets");
    }

    CZAQSimpleBuffer& ring(uint32_t direction, uint32_t channel) const {
        const auto rows =
            static_cast<RtpChannelContextExt(*)[kDirections][kChannels]>(symbol("g_ContextExt"));
        return *rows[0][direction][channel].Buffer.load();
    }
};

[[noreturn]] void idle() {
    for (;;)
        pause();
}

}  // namespace

void setModulePath(const std::string& path) {
    g_ModulePath = path;
}

void moduleReceive(Board& board, uint32_t channels) {
    const Module module;
    module.startReceive(channels);
    std::vector<CZAQSimpleBuffer*> rings;
    for (uint32_t channel = 0; channel < channels; ++channel)
        rings.push_back(&module.ring(QXV_RTP_RECEIVE, channel));
    std::vector<uint8_t> space(kHostBlock * kPayloadBytes);
    board.ready = 1;
    for (;;) {
        for (uint32_t channel = 0; channel < channels; ++channel) {
            uint32_t size;
            // Only what is there, so that no channel waits for another.
            while ((size = std::min(rings[channel]->GetDataSize(),
                                    static_cast<uint32_t>(space.size()))) > 0) {
                module.Receive(module.handle, channel, space.data(), size);
                board.received[channel].fetch_add(size / kPayloadBytes, std::memory_order_relaxed);
            }
        }
        usleep(kHostPoll_us);
    }
}

void moduleSend(Board& board, Load load) {
    constexpr useconds_t kFeed_us = 40000;
    constexpr double kLead_s = 0.1;  // the ring holds more, so the host never waits
    const Module module;
    const auto bitrate = static_cast<uint32_t>(load.rate_bps);
    for (uint32_t channel = 0; channel < load.channels; ++channel)
        module.startSend(channel, bitrate);
    module.waitForSockets(QXV_RTP_SEND, load.channels);
    std::vector<uint8_t> packets(kHostBlock * kPayloadBytes);
    fillPackets(packets.data(), kHostBlock * 7);
    board.ready = 1;
    uint64_t fed = 0;  // bytes, into each channel
    for (const int64_t start = now_ns();; usleep(kFeed_us)) {
        const double elapsed_s = static_cast<double>(now_ns() - start) * 1e-9 + kLead_s;
        const auto due = static_cast<uint64_t>(elapsed_s * 1e9 / load.period_ns()) * kPayloadBytes;
        while (fed < due) {
            const auto size = static_cast<uint32_t>(std::min<uint64_t>(due - fed, packets.size()));
            for (uint32_t channel = 0; channel < load.channels; ++channel)
                module.Send(module.handle, channel, packets.data(), size);
            fed += size;
        }
    }
}

void moduleSendUnpaced() {
    const Module module;
    module.startSend(0, 4'000'000'000);
    std::vector<uint8_t> packets(kHostBlock * kPayloadBytes);
    fillPackets(packets.data(), kHostBlock * 7);
    while (module.Send(module.handle, 0, packets.data(), static_cast<uint32_t>(packets.size())) ==
           1) {
    }
}

void moduleIdle(Board& board, uint32_t direction, uint32_t channels) {
    const Module module;
    if (direction == QXV_RTP_RECEIVE)
        module.startReceive(channels);
    for (uint32_t channel = 0; direction == QXV_RTP_SEND && channel < channels; ++channel)
        module.startSend(channel, 8'000'000);
    module.waitForSockets(direction, channels);
    board.ready = 1;
    idle();
}

void moduleLoadTime(Board& board) {
    const int64_t start = now_ns();
    const Module module;
    if (module.handle != nullptr)
        board.values[0] = static_cast<double>(now_ns() - start) * 1e-6;
}

void moduleMemory(Board& board, uint32_t direction) {
    const Module module;
    board.values[2] = proportionalSet_KiB(getpid());
    board.values[3] = residentSet_KiB(getpid());
    if (direction == QXV_RTP_RECEIVE)
        module.startReceive(kStreams);
    for (uint32_t channel = 0; direction == QXV_RTP_SEND && channel < kStreams; ++channel)
        module.startSend(channel, 8'000'000);
    module.waitForSockets(direction, kStreams);
    board.values[0] = (proportionalSet_KiB(getpid()) - board.values[2]) / kStreams;
    board.values[1] = (residentSet_KiB(getpid()) - board.values[3]) / kStreams;
}

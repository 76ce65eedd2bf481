#include "ModuleSide.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Measure.h"
#include "QXV_RTP.h"
#include "RtpContextExt.h"

namespace {

std::string g_ModulePath;

constexpr double kSocketPatience_s = 12.0;  // housekeeping opens receive sockets once a second
// The host reads and writes as much at most.
constexpr uint32_t kHostPackets = 512 * 7;
constexpr size_t kHostBytes = size_t{kHostPackets} * 188;

// An address that becomes whatever function is expected.
struct Symbol {
    void* address;
    template <typename Function>
    operator Function*() const {
        return reinterpret_cast<Function*>(address);
    }
};

class Module {
    // First, since the functions below come from it.
    void* const library_ = dlopen(g_ModulePath.c_str(), RTLD_NOW | RTLD_LOCAL);

    Symbol symbol(const char* name) const {
        void* const address = library_ != nullptr ? dlsym(library_, name) : nullptr;
        if (address == nullptr)
            throw Failure(dlerror());
        return {address};
    }

  public:
    decltype(QXV_RTP_Create)* Create = symbol("QXV_RTP_Create");
    decltype(QXV_RTP_GetConfig)* GetConfig = symbol("QXV_RTP_GetConfig");
    decltype(QXV_RTP_SetConfig)* SetConfig = symbol("QXV_RTP_SetConfig");
    decltype(QXV_RTP_SendStart)* SendStart = symbol("QXV_RTP_SendStart");
    decltype(QXV_RTP_Send)* Send = symbol("QXV_RTP_Send");
    decltype(QXV_RTP_ReceiveStart)* ReceiveStart = symbol("QXV_RTP_ReceiveStart");
    decltype(QXV_RTP_Receive)* Receive = symbol("QXV_RTP_Receive");
    void* const handle = Create(0);

    // Points the channel at its port on 127.0.0.1, under RTP.
    void configure(uint32_t direction, uint32_t channel) const {
        RtpChannelConfig config;
        GetConfig(handle, direction, channel, &config);
        strcpy(config.LocalAddress, "127.0.0.1");
        strcpy(config.RemoteAddress, "127.0.0.1");
        config.Multicast = 0;
        config.Rtp = 1;
        config.Port = static_cast<uint16_t>(kFirstPort + channel);
        if (SetConfig(handle, direction, channel, &config) == 0)
            throw Failure("the module refuses its configuration");
    }

    // Returns when all have their sockets.
    void start(uint32_t direction, uint32_t channels, uint32_t bitrate_bps = 8'000'000) const {
        // A quarter of a second of the stream.
        const uint32_t bytes = std::clamp(bitrate_bps / 32, 64u << 10, 4u << 20);
        for (uint32_t channel = 0; channel < channels; ++channel) {
            configure(direction, channel);
            const uint32_t started = direction == kSend ? SendStart(handle, channel, bitrate_bps,
                                                                    bytes / QXV_RTP_BUFFER_UNIT)
                                                        : ReceiveStart(handle, channel);
            if (started == 0)
                throw Failure("a channel does not start");
        }
        const auto& records = static_cast<const RtpContext*>(handle)->Channels[direction];
        const bool open = waitFor(kSocketPatience_s, [&] {
            return std::all_of(records, records + channels,
                               [](const auto& record) { return record.Reopen.load() == 0; });
        });
        if (!open)
            throw Failure("the module does not open its sockets");
    }

    CZAQSimpleBuffer& ring(uint32_t direction, uint32_t channel) const {
        const auto rows = static_cast<RtpChannelContextExt(*)[kDirections][kChannels]>(
            symbol("g_ContextExt").address);
        return *rows[0][direction][channel].Buffer.load();
    }
};

}  // namespace

void setModulePath(const std::string& path) {
    g_ModulePath = path;
}

namespace {

void receive(Board& shared, Load load, useconds_t poll_us) {
    const Module module;
    module.start(kReceive, load.channels);
    std::vector<CZAQSimpleBuffer*> rings;
    for (uint32_t channel = 0; channel < load.channels; ++channel)
        rings.push_back(&module.ring(kReceive, channel));
    std::vector<uint8_t> space(kHostBytes);
    shared.ready = 1;
    for (;;) {
        for (uint32_t channel = 0; channel < load.channels; ++channel) {
            uint32_t size;
            // Only what is there, so that no channel waits for another.
            while ((size = std::min(rings[channel]->GetDataSize(),
                                    static_cast<uint32_t>(space.size()))) > 0) {
                module.Receive(module.handle, channel, space.data(), size);
                shared.received[channel].fetch_add(size / kPayloadBytes, std::memory_order_relaxed);
            }
        }
        usleep(poll_us);
    }
}

}  // namespace

void moduleReceive(Board& shared, Load load) {
    receive(shared, load, 1000);
}

void moduleReceiveSlowly(Board& shared, Load load) {
    receive(shared, load, 10000);
}

void moduleSend(Board& /*shared*/, Load load) {
    constexpr useconds_t kFeed_us = 40000;
    constexpr double kLead_s = 0.1;  // the ring holds more, so the host never waits
    const Module module;
    module.start(kSend, load.channels, static_cast<uint32_t>(load.rate_bps));
    std::vector<uint8_t> packets(kHostBytes);
    fillPackets(packets.data(), kHostPackets);
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

void moduleSendUnpaced(Board& /*shared*/, Load /*load*/) {
    constexpr double kArrears_s = 8.0;
    const Module module;
    module.start(kSend, 1, 4'000'000'000);
    pinTo(Place::Traffic);  // the channel's thread stays behind
    std::vector<uint8_t> packets(kHostBytes);
    fillPackets(packets.data(), kHostPackets);
    module.Send(module.handle, 0, packets.data(), static_cast<uint32_t>(packets.size()));
    sleepFor(kArrears_s);
    while (module.Send(module.handle, 0, packets.data(), static_cast<uint32_t>(packets.size())) ==
           1) {
    }
}

void moduleIdle(Board& shared, uint32_t sendChannels, uint32_t receiveChannels) {
    const Module module;
    module.start(kSend, sendChannels);
    module.start(kReceive, receiveChannels);
    shared.ready = 1;
    for (;;)
        pause();
}

void moduleLoadTime(Board& shared) {
    const int64_t start = now_ns();
    const Module module;
    if (module.handle != nullptr)
        shared.result = static_cast<double>(now_ns() - start) * 1e-6;
}

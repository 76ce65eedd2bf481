#include "HostModule.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <thread>

// Calls of virtual functions of the module's classes need no symbol of the module, but the check of
// the dynamic type that sanitizers add does.
#define TOOLS_NO_TYPE_CHECK __attribute__((no_sanitize("vptr")))

HostModule::Library::Library() : library_(dlopen(QXV_MODULE_FILE, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr)
        throw Failure(fmt::format("the module cannot be loaded: {}", dlerror()));
}

HostModule::Library::~Library() {
    dlclose(library_);
}

void* HostModule::Library::symbol(const char* name) const {
    void* const address = dlsym(library_, name);
    if (address == nullptr)
        throw Failure(fmt::format("the module {} has no '{}'", QXV_MODULE_FILE, name));
    return address;
}

#define TOOLS_RESOLVE(name) \
    reinterpret_cast<decltype(&QXV_RTP_##name)>(library_.symbol("QXV_RTP_" #name))

HostModule::HostModule()
    : functions_{TOOLS_RESOLVE(Create),     TOOLS_RESOLVE(Destroy),   TOOLS_RESOLVE(SetConfig),
                 TOOLS_RESOLVE(SendStart),  TOOLS_RESOLVE(Send),      TOOLS_RESOLVE(SetBitrate),
                 TOOLS_RESOLVE(SendCancel), TOOLS_RESOLVE(SendEnd),   TOOLS_RESOLVE(ReceiveStart),
                 TOOLS_RESOLVE(Receive),    TOOLS_RESOLVE(ReceiveEnd)},
      rows_(static_cast<RtpChannelContextExt (*)[kDirections][kChannels]>(
          library_.symbol("g_ContextExt"))),
      handle_(functions_.Create(0)) {
    if (handle_ == nullptr)
        throw Failure(fmt::format("the module could not set up its table {}", kSharedMemoryPath));
}

#undef TOOLS_RESOLVE

HostModule::~HostModule() {
    functions_.Destroy(handle_);
}

const RtpChannelContext& HostModule::record(uint32_t direction, uint32_t channel) const {
    return static_cast<const RtpContext*>(handle_)->Channels[direction][channel];
}

const RtpChannelContextExt& HostModule::row(uint32_t direction, uint32_t channel) const {
    return rows_[0][direction][channel];
}

HostChannel::HostChannel(HostModule& module, uint32_t direction, uint32_t channel,
                         RtpChannelConfig config)
    : module_(module), direction_(direction), channel_(channel) {
    const auto local = std::string(config.LocalAddress);
    const auto remote = std::string(config.RemoteAddress);
    if (module_.call().SetConfig(module_.handle(), direction, channel, &config) == 0)
        throw Failure(
            fmt::format("the module refuses the addresses {} (local) and {}; does a zone "
                        "behind '%' name an interface that exists?",
                        local, remote));
}

bool HostChannel::socketIsOpen() const {
    return module_.record(direction_, channel_).Reopen == 0;
}

bool HostChannel::isCancelled() const {
    return module_.row(direction_, channel_).Cancel != 0;
}

uint32_t HostChannel::measuredBitrate() const {
    return module_.record(direction_, channel_).BitrateActual;
}

bool HostChannel::isRtp() const {
    // The intake of a receive channel may be changing the byte at this moment.
    const volatile uint8_t& rtp = module_.record(direction_, channel_).Config.Rtp;
    return rtp == 1;
}

TOOLS_NO_TYPE_CHECK uint32_t HostChannel::bufferedBytes() const {
    return module_.row(direction_, channel_).Buffer.load()->GetDataSize();
}

TOOLS_NO_TYPE_CHECK uint32_t HostChannel::freeBytes() const {
    return module_.row(direction_, channel_).Buffer.load()->GetFreeSize();
}

TOOLS_NO_TYPE_CHECK uint64_t HostChannel::datagrams() const {
    return module_.row(direction_, channel_).Timer.load()->GetBlocks();
}

SendChannel::SendChannel(HostModule& module, uint32_t channel, const RtpChannelConfig& config,
                         uint32_t bitrate_bps)
    : HostChannel(module, kSend, channel, config) {
    if (module_.call().SendStart(module_.handle(), channel_, bitrate_bps, ringUnits(bitrate_bps)) ==
        0)
        throw Failure(fmt::format("send channel {} could not be started", channel_));
}

SendChannel::~SendChannel() {
    module_.call().SendEnd(module_.handle(), channel_);
}

uint32_t SendChannel::ringUnits(uint32_t bitrate_bps) {
    constexpr uint32_t kSmallest = 64 * 1024;
    constexpr uint32_t kLargest = 4 * 1024 * 1024;
    const uint32_t quarterSecond = bitrate_bps / 8 / 4;
    return std::clamp(quarterSecond, kSmallest, kLargest) / QXV_RTP_BUFFER_UNIT;
}

bool SendChannel::send(std::span<const uint8_t> data) {
    return module_.call().Send(module_.handle(), channel_, data.data(),
                               static_cast<uint32_t>(data.size())) == 1;
}

void SendChannel::setBitrate(uint32_t bitrate_bps) {
    module_.call().SetBitrate(module_.handle(), channel_, bitrate_bps);
}

void SendChannel::cancel() {
    module_.call().SendCancel(module_.handle(), channel_);
}

ReceiveChannel::ReceiveChannel(HostModule& module, uint32_t channel, const RtpChannelConfig& config)
    : HostChannel(module, kReceive, channel, config) {
    if (module_.call().ReceiveStart(module_.handle(), channel_) == 0)
        throw Failure(fmt::format("receive channel {} could not be started", channel_));
}

ReceiveChannel::~ReceiveChannel() {
    module_.call().ReceiveEnd(module_.handle(), channel_);
}

size_t ReceiveChannel::receive(std::span<uint8_t> space) {
    const size_t length = std::min<size_t>(space.size(), bufferedBytes());
    const bool taken = module_.call().Receive(module_.handle(), channel_, space.data(),
                                              static_cast<uint32_t>(length)) == 1;
    return taken ? length : 0;
}

bool ReceiveChannel::awaitSocket(const StreamUrl& url,
                                 const std::function<bool()>& endIsAskedFor) const {
    constexpr std::chrono::milliseconds kLookInterval{1};
    const auto deadline = std::chrono::steady_clock::now() + kSocketPatience;
    while (!socketIsOpen()) {
        if (endIsAskedFor())
            return false;
        if (std::chrono::steady_clock::now() > deadline)
            throw noSocket(url);
        std::this_thread::sleep_for(kLookInterval);
    }
    return true;
}

Failure ReceiveChannel::noSocket(const StreamUrl& url) {
    return Failure(fmt::format("no socket could be opened for {}; {}", url.text,
                               url.multicast
                                   ? "is there an interface for the group? localaddr= names one"
                                   : "is the port in use, or the address not this machine's?"));
}

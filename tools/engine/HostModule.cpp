#include "engine/HostModule.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "QXV_RTP_table.h"

namespace {

// Why the module has no table, as far as the file shows it, and what helps.
std::string tableTrouble() {
    struct stat file {};
    if (lstat(QXV_RTP_TABLE_PATH, &file) != 0)
        return "no file can be made there; is the directory writable, and has it space?";
    const passwd* const owner = getpwuid(file.st_uid);
    const std::string name = owner != nullptr ? owner->pw_name : "?";
    if (file.st_uid != geteuid())
        return fmt::format(
            "the file belongs to user '{}' ({}), and only that user or root can remove it: "
            "'sudo rm {}' does, once nothing of theirs runs; or give this command a /tmp of its "
            "own, as PrivateTmp=yes does for a service",
            name, file.st_uid, QXV_RTP_TABLE_PATH);
    return S_ISDIR(file.st_mode) ? "it is a directory; remove it"
                                 : "the file cannot be replaced; is its directory writable, and "
                                   "has it space?";
}

}  // namespace

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
    : functions_{TOOLS_RESOLVE(Create),        TOOLS_RESOLVE(Destroy),
                 TOOLS_RESOLVE(GetConfig),     TOOLS_RESOLVE(SetConfig),
                 TOOLS_RESOLVE(GetStatistics), TOOLS_RESOLVE(GetBitrate),
                 TOOLS_RESOLVE(SendStart),     TOOLS_RESOLVE(Send),
                 TOOLS_RESOLVE(SetBitrate),    TOOLS_RESOLVE(SendCancel),
                 TOOLS_RESOLVE(SendEnd),       TOOLS_RESOLVE(ReceiveStart),
                 TOOLS_RESOLVE(Receive),       TOOLS_RESOLVE(ReceiveEnd)},
      handle_(functions_.Create(0)) {
    if (handle_ == nullptr)
        throw Failure(fmt::format("the module could not set up its table {}: {}",
                                  QXV_RTP_TABLE_PATH, tableTrouble()));
}

#undef TOOLS_RESOLVE

HostModule::~HostModule() {
    functions_.Destroy(handle_);
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

bool HostChannel::isRtp() const {
    RtpChannelConfig config{};
    module_.call().GetConfig(module_.handle(), direction_, channel_, &config);
    return config.Rtp == 1;
}

QXV_RTP_Statistics HostChannel::statistics() const {
    QXV_RTP_Statistics result{};
    result.Size = sizeof(result);
    module_.call().GetStatistics(module_.handle(), direction_, channel_, &result);
    return result;
}

SendChannel::SendChannel(HostModule& module, uint32_t channel, const RtpChannelConfig& config,
                         uint32_t bitrate_bps, uint32_t ringBytes)
    : HostChannel(module, QXV_RTP_SEND, channel, config) {
    if (module_.call().SendStart(module_.handle(), channel_, bitrate_bps,
                                 ringUnits(bitrate_bps, ringBytes)) == 0)
        throw Failure(fmt::format("send channel {} could not be started", channel_));
}

SendChannel::~SendChannel() {
    module_.call().SendEnd(module_.handle(), channel_);
}

uint32_t SendChannel::ringUnits(uint32_t bitrate_bps, uint32_t leastBytes) {
    constexpr uint32_t kSmallest = 64 * 1024;
    constexpr uint32_t kLargest = 4 * 1024 * 1024;
    const uint32_t quarterSecond = bitrate_bps / 8 / 4;
    return std::clamp(quarterSecond, std::max(kSmallest, leastBytes), kLargest) /
           QXV_RTP_BUFFER_UNIT;
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
    : HostChannel(module, QXV_RTP_RECEIVE, channel, config) {
    if (module_.call().ReceiveStart(module_.handle(), channel_) == 0)
        throw Failure(fmt::format("receive channel {} could not be started", channel_));
}

ReceiveChannel::~ReceiveChannel() {
    module_.call().ReceiveEnd(module_.handle(), channel_);
}

uint32_t ReceiveChannel::measuredBitrate() const {
    uint32_t bitrate_bps = 0;
    module_.call().GetBitrate(module_.handle(), channel_, &bitrate_bps);
    return bitrate_bps;
}

size_t ReceiveChannel::receive(std::span<uint8_t> space) {
    const size_t length = std::min<size_t>(space.size(), bufferedBytes());
    const bool taken = module_.call().Receive(module_.handle(), channel_, space.data(),
                                              static_cast<uint32_t>(length)) == 1;
    return taken ? length : 0;
}

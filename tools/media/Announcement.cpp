#include "media/Announcement.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "Address.h"
#include "Descriptor.h"
#include "SocketOptions.h"
#include "base/Errors.h"
#include "media/LineOutput.h"
#include "media/Sdp.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kAgain = 1s;
// Those who listen already learn of the session soon, even if the first packet is lost.
constexpr uint64_t kFirstPackets = 3;
constexpr auto kFirstInterval = 1s;
constexpr uint64_t kSpreads = 16;

zaqsockets::Descriptor openTo(const StreamUrl& url, const std::string& host, uint16_t port) {
    zaqsockets::Address local;
    zaqsockets::RemoteAddress remote;
    const std::string any = url.ipv6 ? "::" : "0.0.0.0";
    if (!local.Parse(url.localAddress.empty() ? any : url.localAddress) || !remote.Parse(host))
        return zaqsockets::Descriptor();
    return zaqsockets::OpenSendSocket(local, remote, port, kSapTtl);
}

// The address that the stream's datagrams come from.
std::string originOf(const StreamUrl& url) {
    const auto socket = openTo(url, url.host, url.port);
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    std::array<char, NI_MAXHOST> text{};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): what the call takes
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (!socket || getsockname(socket.Number(), generic, &length) != 0 ||
        getnameinfo(generic, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0)
        return url.ipv6 ? "::1" : "127.0.0.1";
    return text.data();
}

// Where it is sent within one zone, it is announced there.
std::string groupOf(const StreamUrl& url) {
    const std::string group = sapGroup(url);
    const size_t zone = url.host.find('%');
    return group.empty() || zone == std::string::npos ? group : group + url.host.substr(zone);
}

}  // namespace

Announcement::Announcement(StreamUrl url, const Announcing& how, std::vector<std::string>& events)
    : url_(std::move(url)),
      name_(how.name),
      group_(how.name.empty() ? "" : groupOf(url_)),
      origin_(originOf(url_)),
      sdp_(writeSdp(url_, name_, origin_)) {
    if (how.folder.empty())
        return;
    const std::string file = how.folder + '/' + sdpFileName(url_);
    try {
        replaceFile(file, sdp_);
        file_ = file;
    } catch (const Failure& failure) {
        events.emplace_back(failure.what());
    }
}

Announcement::~Announcement() {
    if (!file_.empty())
        unlink(file_.c_str());
    if (sent_ > 0)
        send(true);
}

void Announcement::run(Clock::time_point now) {
    if (group_.empty() || now < next_)
        return;
    if (!send(false)) {
        next_ = now + kAgain;
        return;
    }
    ++sent_;
    const uint64_t spread = (sessionOf(url_, name_) / 7 + sent_ * 5) % kSpreads;
    next_ = now + (sent_ < kFirstPackets
                       ? kFirstInterval
                       : sapInterval(sdp_.size(), 1, static_cast<double>(spread) / kSpreads));
}

bool Announcement::send(bool takesBack) {
    const auto packet = sapPacket(sdp_, sessionOf(url_, name_), origin_, takesBack);
    const auto socket = openTo(url_, group_, kSapPort);
    return socket && !packet.empty() &&
           ::send(socket.Number(), packet.data(), packet.size(), MSG_DONTWAIT) >= 0;
}

// A socket that receives a stream, for as long as it takes: opened again, and joined anew.
#ifndef TOOLS_ENGINE_STREAMSOCKET_H
#define TOOLS_ENGINE_STREAMSOCKET_H

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "engine/Chain.h"
#include "media/DatagramSocket.h"
#include "media/HostNames.h"
#include "media/NetworkWatch.h"
#include "media/StreamUrl.h"

// What the sockets of one thread share.
struct SocketMeans {
    std::unique_ptr<DatagramBatch> batch = std::make_unique<DatagramBatch>();
    NetworkWatch network;
};

// Takes what has come 25 times a second: the kernel notes when each datagram arrives. It comes more
// often only where the socket's buffer would be filled by a quarter meanwhile.
//
// Thread safety: one thread uses it, that of the means.
class StreamSocket {
  public:
    using Clock = Chain::Clock;

    // The means outlive the object.
    StreamSocket(const StreamUrl& url, SocketMeans& means) : url_(url), means_(means) {}

    // Opens the socket where there is none, once a second; and renews its memberships.
    void attend(Clock::time_point now);
    bool isOpen() const { return socket_.has_value(); }
    std::optional<Clock::time_point> firstOpened() const { return opened_; }
    const StreamUrl& url() const { return url_; }
    const std::string& trouble() const { return trouble_; }  // why there is no socket
    // The same as a sentence, behind which another one may follow.
    std::string sentence() const;

    // Passes on what has come, and returns when more is to be taken: at once, where there was more
    // than what fits a turn.
    Clock::time_point take(Clock::time_point now,
                           const std::function<void(const ts::Datagram&)>& use);

    // What the kernel has dropped since the last call, because the socket's buffer was full.
    uint64_t takeDropped() { return socket_ ? socket_->takeDropped() : 0; }

  private:
    void open(Clock::time_point now);
    void renew(Clock::time_point now);

    const StreamUrl url_;
    SocketMeans& means_;
    LookUp address_;
    std::optional<DatagramSocket> socket_;
    uint64_t looks_ = 0;  // at the network, when the memberships were renewed last
    Clock::duration interval_{};
    Clock::time_point retry_{};
    std::string trouble_;
    std::optional<Clock::time_point> opened_;
};

#endif

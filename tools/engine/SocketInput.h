// A stream from sockets of the tool's own. RTP is put in order, and merged where several paths
// bring it.
#ifndef TOOLS_ENGINE_SOCKETINPUT_H
#define TOOLS_ENGINE_SOCKETINPUT_H

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "FecDecoder.h"
#include "Reorderer.h"
#include "base/ByteQueue.h"
#include "engine/StreamInput.h"
#include "engine/StreamSocket.h"

// Several paths are looked at in the order of their datagrams' arrival. A path that has no socket,
// or that brings nothing while another one does, is told, and told again when it is back; what
// happens to all paths is up to whoever uses the input.
//
// The payloads wait in a queue of 4 MiB, as they would in a channel's ring; what comes beyond is
// dropped.
// From udp://, or with a window of 0, datagrams are taken as they come, and RTP is recognised.
class SocketInput : public StreamInput {
  public:
    SocketInput(const std::vector<StreamUrl>& paths, SocketMeans& means);

    Clock::time_point attend(Clock::time_point now) override;
    std::string trouble() const override;
    QXV_RTP_Statistics statistics() const override;
    uint64_t arrived() const override;
    bool isRtp() const override { return rtp_; }
    uint32_t measuredBitrate() const override { return bitrate_bps_; }
    size_t receive(std::span<uint8_t> space) override { return queue_.take(space); }
    void finish() override;
    std::vector<std::string> takeEvents() override { return std::exchange(events_, {}); }
    std::optional<RepairReport> repairs() const override;

  private:
    struct Fec {
        Fec(const StreamUrl& url, SocketMeans& means)
            : sockets{{{fecUrl(url, FecPort::kColumns), means},
                       {fecUrl(url, FecPort::kRows), means}}} {}

        std::array<StreamSocket, 2> sockets;
        ts::FecDecoder decoder;
        std::optional<Clock::time_point> since;  // the first datagram of the stream
        bool absenceReported = false;
    };
    struct Path {
        Path(const StreamUrl& url, SocketMeans& means)
            : socket(url, means), fec(url.fec ? std::make_unique<Fec>(url, means) : nullptr) {}

        StreamSocket socket;
        const std::unique_ptr<Fec> fec;
        Clock::time_point socketSeen = Clock::now();
        ts::Time last{0};    // arrival; 0 = nothing has come
        ts::Time listens{};  // since the opening of the socket
        ts::Time behind{};   // another path has brought something since, and this one has not
        bool socketReported = false;
        bool silenceReported = false;
    };
    // Taken from a socket, and not yet looked at.
    struct Staged {
        ts::Time arrival;
        size_t path;
        Path* from;
        bool isFec;
        size_t offset;
        size_t length;
    };

    bool isOpen() const;
    Clock::time_point takeAll(Clock::time_point now);
    void stage(const ts::Datagram& datagram, Path& path, size_t number, bool isFec);
    void pushStaged();
    void takeAsItComes(std::span<const uint8_t> datagram);
    void store(const ts::Reorderer::Delivery& delivery);
    void watchPaths(Clock::time_point now);
    void watchDrops(Clock::time_point now);
    void watchFec(Clock::time_point now);
    void watchNumbers(Clock::time_point now);
    void measure(Clock::time_point now);

    std::list<Path> paths_;
    const ts::Time longestWait_;
    std::optional<ts::Reorderer> reorderer_;  // none: nothing is repaired
    const ts::Reorderer::Sink sink_;
    std::vector<Staged> staged_;
    std::vector<uint8_t> stagedBytes_;
    ts::Time last_{0};  // nothing is looked at with an earlier time any more

    ByteQueue queue_;
    uint64_t stored_ = 0;  // datagrams
    uint64_t bytes_ = 0;
    uint64_t overruns_ = 0;
    uint64_t socketDrops_ = 0;
    uint64_t dropsReported_ = 0;
    Clock::time_point nextReport_{};
    Clock::time_point numbersSeen_ = Clock::now();  // when their sense was looked at last
    ts::RepairCounts countsSeen_;
    bool numbersReported_ = false;
    bool rtp_ = true;
    int ofOtherForm_ = 0;  // datagrams in a row that contradict rtp_

    Clock::time_point measured_ = Clock::now();
    uint64_t bytesMeasured_ = 0;
    uint32_t bitrate_bps_ = 0;
    std::vector<std::string> events_;
};

#endif

// A stream that is watched: from a socket of the tool's own to its monitor.
#ifndef TOOLS_ENGINE_MONITORCHAIN_H
#define TOOLS_ENGINE_MONITORCHAIN_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "StreamMonitor.h"
#include "engine/Chain.h"
#include "engine/Jobs.h"
#include "media/DatagramSocket.h"
#include "media/HostNames.h"
#include "media/NetworkWatch.h"
#include "media/StreamUrl.h"

// What the chains of one thread share.
struct MonitorMeans {
    std::unique_ptr<DatagramBatch> batch = std::make_unique<DatagramBatch>();
    NetworkWatch network;
};

// Takes what has come 25 times a second: the kernel notes when each datagram arrives. It comes more
// often only where the socket's buffer would be filled by a quarter meanwhile.
//
// A socket that cannot be opened, or whose group is joined nowhere any more, is opened anew for as
// long as it takes; the outage is told once it has lasted, and when it is over. Only where there is
// a patience to begin with does the chain fail: when there is no socket by then.
class MonitorChain : public Chain {
  public:
    // The means outlive the chain.
    MonitorChain(const MonitorJob& job, MonitorMeans& means,
                 std::optional<std::chrono::milliseconds> patience);

    // Ends when the job's duration is over, which begins with the opening of the socket.
    std::optional<Clock::time_point> run(Clock::time_point now) override;
    void cancel() override {}

    std::string name() const override { return job_.name.empty() ? job_.url : job_.name; }
    std::string describe(Clock::time_point now) override;
    std::string summary() const override;
    std::vector<std::string> warnings() const override { return {}; }
    std::optional<std::string> unfinished() const override { return std::nullopt; }

    const MonitorJob& job() const { return job_; }
    bool wasOpened() const { return opened_.has_value(); }
    bool hasSocket() const { return socket_.has_value(); }
    const ts::StreamMonitor& monitor() const { return monitor_; }

    // Alarms raised and cleared since the last call.
    std::vector<ts::AlarmEvent> takeAlarms() { return monitor_.takeEvents(); }

  private:
    void open(Clock::time_point now);
    void renew(Clock::time_point now);
    void watch(Clock::time_point now);
    Clock::time_point take(Clock::time_point now);
    void add(const ts::Datagram& datagram);
    std::string figures() const;

    const MonitorJob job_;
    const StreamUrl url_;
    MonitorMeans& means_;
    const std::optional<std::chrono::milliseconds> patience_;
    ts::StreamMonitor monitor_;

    LookUp address_;
    std::optional<DatagramSocket> socket_;
    uint64_t looks_ = 0;  // at the network, when the memberships were renewed last
    Clock::duration interval_;
    ts::Time ticked_{0};
    Clock::time_point retry_{};
    std::string trouble_;  // why there is no socket

    const Clock::time_point started_ = Clock::now();
    std::optional<Clock::time_point> opened_;  // the first socket
    Clock::time_point socketSeen_ = started_;
    bool outageReported_ = false;
};

#endif

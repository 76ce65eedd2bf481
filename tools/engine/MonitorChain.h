// A stream that is watched: from a socket of the tool's own to its monitor.
#ifndef TOOLS_ENGINE_MONITORCHAIN_H
#define TOOLS_ENGINE_MONITORCHAIN_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "StreamMonitor.h"
#include "engine/Chain.h"
#include "engine/Jobs.h"
#include "engine/StreamSocket.h"

// An outage of the socket is told once it has lasted, and when it is over. Only where there is a
// patience to begin with does the chain fail: when there is no socket by then.
class MonitorChain : public Chain {
  public:
    // The means outlive the chain.
    MonitorChain(const MonitorJob& job, SocketMeans& means,
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
    bool wasOpened() const { return socket_.firstOpened().has_value(); }
    bool hasSocket() const { return socket_.isOpen(); }
    const ts::StreamMonitor& monitor() const { return monitor_; }

    // Alarms raised and cleared since the last call.
    std::vector<ts::AlarmEvent> takeAlarms() { return monitor_.takeEvents(); }

  private:
    void watch(Clock::time_point now);
    Clock::time_point take(Clock::time_point now);
    void add(const ts::Datagram& datagram);
    std::string figures() const;

    const MonitorJob job_;
    const std::optional<std::chrono::milliseconds> patience_;
    ts::StreamMonitor monitor_;

    StreamSocket socket_;
    ts::Time ticked_{0};

    const Clock::time_point started_ = Clock::now();
    Clock::time_point socketSeen_ = started_;
    bool outageReported_ = false;
};

#endif

// Runs the user's command for each alarm.
#ifndef TOOLS_ENGINE_ALARMCOMMAND_H
#define TOOLS_ENGINE_ALARMCOMMAND_H

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <string>
#include <utility>
#include <vector>

// Starts the command with the facts in its environment, and without a shell or arguments. It is
// never waited for: a few run at a time, in the order of the alarms, each for at most half a
// minute, and the others queue up.
//
// Thread safety: one thread uses it.
class AlarmCommand {
  public:
    using Clock = std::chrono::steady_clock;

    AlarmCommand() = default;
    AlarmCommand(const AlarmCommand&) = delete;
    AlarmCommand& operator=(const AlarmCommand&) = delete;

    // `facts` are lines of the environment, like "QXVRTP_STATE=raised".
    void add(const std::string& command, std::vector<std::string> facts);

    // Starts what can be started, and looks what has become of the others.
    void run(Clock::time_point now);

    // What has gone wrong since the last call, for the user to know.
    std::vector<std::string> takeEvents() { return std::exchange(events_, {}); }

  private:
    struct Call {
        std::string command;
        std::vector<std::string> facts;
    };
    struct Process {
        pid_t id;
        Clock::time_point started;
        std::string command;
        bool killed;
    };
    void start(const Call& call, Clock::time_point now);
    bool hasEnded(Process& process, Clock::time_point now);

    std::deque<Call> waiting_;
    std::vector<Process> running_;
    bool overrun_ = false;  // and told
    std::vector<std::string> events_;
};

#endif

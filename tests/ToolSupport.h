// The tool as a process.
#ifndef TESTS_TOOLSUPPORT_H
#define TESTS_TOOLSUPPORT_H

#include <gtest/gtest.h>

#include "ProcessSupport.h"

inline const std::string kSample = SAMPLE_PATH;
inline const std::string kSampleArg = "'" SAMPLE_PATH "'";  // in a command

// A shell command, running; killed if nobody has waited for it. The tool gets a /tmp, and so a
// shared table, of its own; redirections are made outside.
class Process {
  public:
    explicit Process(const std::string& command)
        : m_Child(Fork([&] { return execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); })) {}
    static Process Tool(const std::string& arguments) {
        return Process("exec unshare --mount " PRIVATE_TMP " " TOOL_COMMAND " " + arguments);
    }
    Process(Process&& other) noexcept : m_Child(std::exchange(other.m_Child, 0)) {}
    ~Process() {
        if (m_Child != 0)
            End(SIGKILL);
    }
    int Wait() { return Reap(std::exchange(m_Child, 0), 40); }
    int End(int signal) {
        kill(m_Child, signal);
        return Wait();
    }

  private:
    pid_t m_Child;
};

inline std::string Output(const std::string& command) {
    EXPECT_EQ(Process(command + " > /tmp/output").Wait(), 0) << command;
    return Contents("/tmp/output");
}

// A receiver of the URL, which has the port, with its socket open; it records /tmp/PORT.
inline Process Receive(const std::string& url, int port, const std::string& options = "") {
    Process tool =
        Process::Tool("receive '" + url + "' - " + options + " > /tmp/" + std::to_string(port));
    char field[16];
    snprintf(field, sizeof(field), ":%04X ", static_cast<unsigned int>(port));
    EXPECT_TRUE(Await([&] {
        return (Contents("/proc/net/udp") + Contents("/proc/net/udp6")).find(field) !=
               std::string::npos;
    })) << url;
    return tool;
}

#endif

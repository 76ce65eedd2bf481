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
    pid_t Id() const { return m_Child; }
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

inline bool Says(const std::string& file, const std::string& text) {
    return Contents(file).find(text) != std::string::npos;
}

inline void ExpectSaid(const std::vector<std::string>& parts,
                       const std::string& file = "/tmp/said") {
    for (const std::string& part : parts)
        EXPECT_TRUE(Says(file, part)) << part << '\n' << Contents(file);
}

inline bool IsBound(int port) {
    char field[16];
    snprintf(field, sizeof(field), ":%04X ", static_cast<unsigned int>(port));
    return Says("/proc/net/udp", field) || Says("/proc/net/udp6", field);
}

// A receiver of the URL, which has the port, with its socket open; it records /tmp/PORT.
inline Process Receive(const std::string& url, int port, const std::string& options = "") {
    Process tool =
        Process::Tool("receive '" + url + "' - " + options + " > /tmp/" + std::to_string(port));
    EXPECT_TRUE(Await([&] { return IsBound(port); })) << url;
    return tool;
}

// A receiver with its socket of the port open, whose outputs lie in the /tmp of the test.
inline Process Record(int port, const std::string& arguments) {
    Process tool("exec " TOOL_COMMAND " receive " + arguments);
    EXPECT_TRUE(Await([&] { return IsBound(port); })) << arguments;
    return tool;
}

inline void Send(const std::string& url, const std::string& options = "-b 20M",
                 const std::string& input = kSampleArg) {
    EXPECT_EQ(Process::Tool("send " + input + ' ' + url + ' ' + options).Wait(), 0) << url;
}

#endif

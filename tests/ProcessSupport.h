// Waiting with a deadline, files, a plain socket, what a process has open, and child processes.
#ifndef TESTS_PROCESSSUPPORT_H
#define TESTS_PROCESSSUPPORT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Patience with whatever makes progress, however slowly, as all does on a busy machine: it is left
// until the progress, a number that changes, has been the same for so long.
class Patience {
  public:
    explicit Patience(int seconds = 15) : m_Limit(seconds) {}
    template <typename Progress>
    bool IsLeft(Progress progress) {
        const auto now = std::chrono::steady_clock::now();
        if (const auto number = static_cast<uint64_t>(progress); number != m_Progress) {
            m_Progress = number;
            m_Since = now;
        }
        return now - m_Since < m_Limit;
    }

  private:
    const std::chrono::seconds m_Limit;
    uint64_t m_Progress = 0;
    std::chrono::steady_clock::time_point m_Since = std::chrono::steady_clock::now();
};

// Polls until the condition holds. False when it does not while nothing progresses.
template <typename Condition, typename Progress>
bool Await(Condition condition, Progress progress, int seconds) {
    for (Patience patience(seconds); !condition(); usleep(2000))
        if (!patience.IsLeft(progress()))
            return false;
    return true;
}

template <typename Condition>
bool Await(Condition condition, int seconds = 15) {
    return Await(
        condition, [] { return 0; }, seconds);
}

inline std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A file in the folder of the tests.
inline std::string TestFile(const std::string& name) {
    return TESTS_PATH "/" + name;
}

// The text is that of the file in golden/, which QXV_UPDATE_GOLDEN=1 writes anew.
inline void ExpectGolden(const std::string& name, const std::string& text) {
    if (getenv("QXV_UPDATE_GOLDEN") != nullptr)
        std::ofstream(TestFile("golden/" + name)) << text;
    EXPECT_EQ(text, Contents(TestFile("golden/" + name))) << name;
}

// The lines of a file in cases/ but for comments, which begin with '#', and empty ones.
inline std::vector<std::string> Cases(const std::string& name) {
    std::ifstream file(TestFile("cases/" + name));
    std::vector<std::string> cases;
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#')
            cases.push_back(line);
    EXPECT_FALSE(cases.empty()) << name;
    return cases;
}

// A socket of the system whose datagrams go to a port of this host.
inline int SocketTo(uint16_t port) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0);
    return socket;
}

// Descriptors and threads of this process. A thread that was joined counts for a moment longer.
inline auto Footprint() {
    // Sanitizers start a thread of their own with the first of a process.
    static pid_t warm = 0;
    if (std::exchange(warm, getpid()) != getpid()) {
        std::filesystem::path task;
        std::thread([&task] { task = "/proc/self/task/" + std::to_string(gettid()); }).join();
        Await([&task] { return !std::filesystem::exists(task); });
    }
    const auto entries = [](const char* directory) {
        return std::distance(std::filesystem::directory_iterator(directory), {});
    };
    return std::pair(entries("/proc/self/fd"), entries("/proc/self/task"));
}

// Runs `body` in a child process, which ends as a host does: through exit(), with its handlers.
inline pid_t Fork(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0)
        exit(body());
    return child;
}

// Exit code of the child, 128 + the signal that killed it, or -1 when it had not ended in time.
inline int Reap(pid_t child, int seconds = 20) {
    int status = 0;
    if (!Await([&] { return waitpid(child, &status, WNOHANG) == child; }, seconds)) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

#endif

// What the tool tells about streams and about the hosts of this machine.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "StreamSupport.h"
#include "ToolSupport.h"

namespace {

using nlohmann::json;
using namespace std::string_literals;

const std::string kTable = "/tmp/__QXV_RTP_SHARE_MEMORY__", kTool = TOOL_COMMAND " ";

TEST(ToolMonitor, ShowsARunningSenderAndItsStreamAndLeavesTheTableAlone) {
    Process sender("exec " TOOL_COMMAND " send -l " SAMPLE_PATH " rtp://127.0.0.1:7040");
    EXPECT_TRUE(Await([] { return Contents(kTable).size() == 17680; }));
    const std::string file = Output("stat -c '%i %Y %Z' " + kTable);
    json status;
    EXPECT_TRUE(Await([&] {
        status = json::parse(Output(kTool + "status --json"));
        return status["channels"].size() == 1 && status["channels"][0]["bitrate_bps"] > 700000;
    })) << status;
    EXPECT_EQ(status["hosts"].size(), 1u);
    EXPECT_NE(Output(kTool + "status -p").find("port=\"7040\"} 100000\n"), std::string::npos);
    EXPECT_EQ(Output(kTool + "top -n 2 -i 0.1").find('\033'), std::string::npos);
    EXPECT_EQ(Output("stat -c '%i %Y %Z' " + kTable), file);
    const json probe = json::parse(Output("unshare --mount " PRIVATE_TMP " " + kTool +
                                          "probe rtp://@127.0.0.1:7040 -d 1.5 --json"));
    EXPECT_EQ(probe["programmes"][0]["name"], "Service01") << probe;
    EXPECT_EQ(sender.End(SIGINT), 0);
    EXPECT_EQ(json::parse(Output(kTool + "status --json"))["hosts"].size(), 0u);
}

TEST(ToolMonitor, FindsAHostInAnotherRootAndCallsNoneDeadThatItCannotSee) {
    unlink(kTable.c_str());
    ASSERT_EQ(
        system("mkdir /tmp/chroot && mount --rbind / /tmp/chroot && cp " TOOL_COMMAND " /tmp"), 0);
    Process sender("exec chroot /tmp/chroot " TOOL_COMMAND " send -l " SAMPLE_PATH
                   " udp://127.0.0.1:7041");
    EXPECT_TRUE(Await([] { return Contents(kTable).size() == 17680; }));
    const auto alive = [](const std::string& prefix) {
        return json::parse(Output(prefix + " /tmp/qxvrtp status --json"))["alive"].dump();
    };
    EXPECT_TRUE(Await([&] { return alive("") == "true"; }));
    EXPECT_EQ(alive("chroot /tmp/chroot"), "true");
    for (const char* prefix : {"chroot /tmp/chroot unshare --pid --fork --mount-proc",
                               "unshare --pid --fork --mount-proc", "setpriv --reuid 65534"})
        EXPECT_EQ(alive(prefix), "null") << prefix;
#ifndef QXV_SANITIZED  // which needs /proc itself
    EXPECT_NE(Output("unshare -m sh -c 'mount -t tmpfs none /proc; /tmp/qxvrtp status'")
                  .find("hosts: unknown: no /proc"),
              std::string::npos);
#endif
    EXPECT_EQ(sender.End(SIGINT), 0);
    EXPECT_EQ(alive(""), "false");
    unlink(kTable.c_str());
    EXPECT_NE(Output(kTool + "status -p").find("qxvrtp_table_present 0\n"), std::string::npos);
}

// Adds what comes from the terminal, until that has the text or nobody uses the terminal any more.
void ReadUntil(int terminal, std::string& seen, const std::string& text) {
    EXPECT_TRUE(Await([&] {
        char buffer[4096];
        pollfd event{terminal, POLLIN, 0};
        const bool come = poll(&event, 1, 0) > 0;
        const ssize_t count = come ? read(terminal, buffer, sizeof(buffer)) : 0;
        seen.append(buffer, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        return (come && count <= 0) || seen.find(text) != std::string::npos;
    })) << seen;
}

TEST(ToolMonitor, TopShowsTheTableAndPutsTheTerminalBackWhateverEndsIt) {
    std::ofstream(kTable) << std::string(17680, '\0');
    for (const int signal : {0, SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        int terminal = -1;
        const winsize size{10, 80, 0, 0};
        const pid_t top = forkpty(&terminal, nullptr, nullptr, &size);
        if (top == 0)
            _exit(execl(TOOL_PATH, "qxvrtp", "top", "-a", nullptr));
        std::string seen;
        ReadUntil(terminal, seen, "\r\nsend     5 raw  idle ");
        EXPECT_EQ(seen.substr(0, 14), "\033[?1049h\033[?25l");
        EXPECT_NE(seen.find("hosts: none alive"), std::string::npos) << seen;
        if (signal == 0)
            EXPECT_EQ(write(terminal, "q", 1), 1);
        else
            kill(top, signal);
        ReadUntil(terminal, seen, "\033[?25h\033[?1049l");
        EXPECT_TRUE(seen.ends_with("\033[?25h\033[?1049l")) << signal << seen;
        EXPECT_EQ(Reap(top), 0) << signal;
        close(terminal);
    }
}

// Sends the bytes in datagrams of that size to the port, again and again if so wanted.
void Send(uint16_t port, const std::string& bytes, size_t size, bool forEver) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    do {
        for (size_t at = 0; at < bytes.size(); at += size)
            sendto(socket, &bytes[at], size, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
        usleep(500);
    } while (forEver);
    close(socket);
}

TEST(ToolMonitor, ProbeCountsShortDatagramsAndEndsInTimeWhateverComes) {
    const auto probe = [](const std::string& options) {
        Process tool = Process::Tool("probe udp://127.0.0.1:7042 -j " + options + " >/tmp/probe");
        EXPECT_TRUE(
            Await([] { return Contents("/proc/net/udp").find(":1B82 ") != std::string::npos; }));
        return tool;
    };
    EXPECT_EQ(probe("-d 1").Wait(), 1);
    EXPECT_EQ(json::parse(Contents("/tmp/probe"))["bytes"], 0) << "an object all the same";

    // Sections of 12 services, whose names are of ever other encodings.
    std::string stream;
    for (int i = 0; i < 16 * 7; ++i) {
        std::string services = "\0\1\xC1\0\0\0\1\xFF"s;
        for (int k = i; k < i + 12; ++k) {
            services += "\0"s + static_cast<char>(k - i) + "\xFC\x80\x09\x48\x07\1\2"s;
            services +=
                static_cast<char>(1 + k % 11) + "p\2"s + static_cast<char>(1 + (k + 1) % 11) + "n";
        }
        stream += Packets("\0\x11"s, "\x42", services);
        stream[stream.size() - 185] = static_cast<char>(0x10 | i % 16);
    }
    Process some = probe("-d 600");
    Send(7042, stream, 188, false);
    usleep(200000);  // nothing tells that it has counted them
    EXPECT_EQ(some.End(SIGTERM), 0);
    EXPECT_EQ(json::parse(Contents("/tmp/probe"))["datagrams"], 112);

    const pid_t flood = Fork([&] { return Send(7042, stream, 7 * 188, true), 0; });
    EXPECT_EQ(probe("-d 1").Wait(), 0);
    EXPECT_EQ(json::parse(Contents("/tmp/probe"))["section_errors"], 0);
    kill(flood, SIGKILL);
    Reap(flood);
}

}  // namespace

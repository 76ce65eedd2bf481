// Recording: where it goes, what it holds, and what happens when something is in the way.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <regex>

#include "PacketSieve.h"
#include "ToolSupport.h"

namespace {

bool IsBound(int port) {
    char field[16];
    snprintf(field, sizeof(field), ":%04X ", static_cast<unsigned int>(port));
    return Contents("/proc/net/udp").find(field) != std::string::npos;
}

bool Says(const std::string& file, const std::string& text) {
    return Contents(file).find(text) != std::string::npos;
}

TEST(Tool, ReceiveRotatesFilesAtPacketsAndCountsAndEndsWhenIdle) {
    const std::string all = Contents(kSample);
    const std::string input = all.substr(0, 188 * 700) + all.substr(188 * 701);
    std::ofstream("/tmp/input") << input;
    std::ofstream("/tmp/part-0002.ts") << "kept";
    const std::string url = "udp://127.0.0.1:7100";
    Process idle = Process::Tool("receive udp://127.0.0.1:7104 /dev/null -i 0.3 2> /dev/null");
    // The files lie outside the mount namespace of Process::Tool.
    Process receiver(TOOL_COMMAND " receive " + url +
                     " /tmp/part.ts rtp://127.0.0.1:7102 /no/file " +
                     "--rotate-size 100k -i 2 --statistics 2> /tmp/statistics");
    ASSERT_TRUE(
        Await([] { return Contents("/proc/net/udp").find(":1BBC ") != std::string::npos; }));
    EXPECT_EQ(Process::Tool("send - " + url + " -b 5M < /tmp/input").Wait(), 0);
    EXPECT_EQ(receiver.Wait(), 1) << "one of two has failed";
    EXPECT_EQ(idle.Wait(), 1) << "nothing came";
    std::string recording;
    for (const char* number : {"1", "3", "4", "5"}) {
        const std::string part = Contents(std::string("/tmp/part-000") + number + ".ts");
        EXPECT_EQ(part.substr(0, 1), "\x47");
        EXPECT_TRUE(*number == '5' || part.size() == 532 * 188) << part.size();
        recording += part;
    }
    EXPECT_TRUE(recording.substr(0, input.size()) == input);
    EXPECT_EQ(Contents("/tmp/part-0002.ts"), "kept");
    const std::string statistics = Contents("/tmp/statistics");
    for (const char* part : {"\"files\":4,\"mode\":\"raw\"", "\"datagrams\":269,\"bytes\":354004",
                             "\"continuity_errors\":1,\"sync_losses\":0,\"error\":null",
                             "cannot write '/no/file-0001'", "qxvrtp: 1 of 2 streams failed\n"})
        EXPECT_NE(statistics.find(part), std::string::npos) << part << '\n' << statistics;
}

TEST(Tool, ReceiveKeepsAFileWhenThePortIsInUseAndGoesOnWhenADiskWasFull) {
    Process(
        "mkdir /tmp/full && mount -t tmpfs -o size=64k tmpfs /tmp/full && printf kept > /tmp/kept")
        .Wait();
    const std::string receive = TOOL_COMMAND " receive udp://127.0.0.1:7120 ";
    Process full(receive + "/tmp/full/it udp://:7122 /tmp/./full/it -n 354004 2> /tmp/said");
    EXPECT_TRUE(Await([] { return IsBound(7120); }));
    EXPECT_EQ(Process(receive + "/tmp/kept --patience 0.5 2> /dev/null").Wait(), 1);
    EXPECT_EQ(Contents("/tmp/kept"), "kept");
    EXPECT_EQ(Process::Tool("send " + kSampleArg + " udp://127.0.0.1:7120 -b 20M").Wait(), 0);
    EXPECT_TRUE(Await([] { return Says("/tmp/said", "No space left on device; trying again"); }));
    usleep(2'500'000);  // more than two tries
    EXPECT_EQ(Process("mount -o remount,size=2m /tmp/full").Wait(), 0);
    EXPECT_EQ(full.Wait(), 1) << "the file of another stream";
    EXPECT_TRUE(Contents("/tmp/full/it") == Contents(kSample));
    const std::regex told(
        "qxvrtp: '/tmp/./full/it' is the file that .*\nqxvrtp: cannot write '/tmp/full/it': .*\n"
        "qxvrtp: '/tmp/full/it' is written again\nqxvrtp: 1 of 2 streams failed\n");
    EXPECT_TRUE(std::regex_match(Contents("/tmp/said"), told)) << Contents("/tmp/said");
}

TEST(Tool, ReceiveGoesOnBesideAPipeThatNobodyReads) {
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600) + mkfifo("/tmp/late", 0600), 0);
    const int fifo = open("/tmp/fifo", O_RDONLY | O_NONBLOCK);
    Process receiver("exec " TOOL_COMMAND
                     " receive udp://127.0.0.1:7124 /tmp/fifo udp://127.0.0.1:7125 /tmp/file "
                     "udp://127.0.0.1:7126 /tmp/late --statistics -i 60 2> /tmp/said");
    ASSERT_TRUE(Await([] { return IsBound(7124) && IsBound(7125); }));
    EXPECT_FALSE(IsBound(7126)) << "before there is a reader";
    const int late = open("/tmp/late", O_RDONLY | O_NONBLOCK);
    EXPECT_TRUE(Await([] { return IsBound(7126); }));
    // More than the pipe and the ring hold, and still the others are written.
    Process endless =
        Process::Tool("send " + kSampleArg + " udp://127.0.0.1:7124 -b 100M --loop 2> /dev/null");
    EXPECT_TRUE(Await([] { return Says("/tmp/said", "datagrams from udp://127.0.0.1:7124 are"); }));
    for (const char* port : {"7125", "7126"})
        EXPECT_EQ(Process::Tool("send " + kSampleArg + " -b 20M udp://127.0.0.1:" + port).Wait(),
                  0);
    EXPECT_TRUE(Await([] { return std::filesystem::file_size("/tmp/file") >= 354004; }));
    EXPECT_EQ(receiver.End(SIGTERM), 1);
    endless.End(SIGTERM);
    EXPECT_TRUE(Contents("/tmp/file") == Contents(kSample));
    std::string read(400'000, '\0');
    EXPECT_EQ(::read(late, read.data(), read.size()), 354004);
    close(fifo);
    close(late);
    EXPECT_TRUE(Says("/tmp/said", "bytes from udp://127.0.0.1:7124 after SIGTERM"))
        << Contents("/tmp/said");
    EXPECT_TRUE(Says("/tmp/said", "qxvrtp: 1 of 3 streams failed\n")) << Contents("/tmp/said");
}

}  // namespace

// The tool as a process, against itself; clients_test.py sets it against other programs.
#include "ToolSupport.h"

namespace {

TEST(Tool, ReceiveRecordsByteForByteWhatSendSendsWithItsTail) {
    const std::tuple<std::string, size_t, const char*> cases[] = {
        // packets of the sample
        {"udp://127.0.0.1:7000", 1883, "-b 20M"},  // and goes on when the receiver has enough
        {"rtp://[::1]:7001", 1000, "-b 20M"},
        {"rtp://239.1.1.1:7002?localaddr=127.0.0.1&ttl=0", 400, ""},
        {"udp://[ff15::1]:7003?localaddr=::1", 3, "-b 100k"}};
    int port = 7000;
    for (const auto& [url, packets, options] : cases) {
        const std::string input = Contents(kSample).substr(0, packets * 188);
        std::ofstream("/tmp/input") << Contents(kSample).substr(0, packets * 188 + 100);
        // Null packets fill the last datagram, and what it takes to find the size of packets.
        const size_t datagrams = std::max<size_t>((packets + 6) / 7, 2);
        const size_t all = datagrams * 1316;
        const size_t length = port == 7000 ? all - 5000 : all;
        Process receiver = Receive(url, port, "-n " + std::to_string(length));
        EXPECT_EQ(Process::Tool("send - '" + url + "' " + options + " < /tmp/input").Wait(), 0);
        EXPECT_EQ(receiver.Wait(), 0) << url;
        const std::string recording = Contents("/tmp/" + std::to_string(port++));
        EXPECT_EQ(recording.size(), length);
        EXPECT_TRUE(recording.substr(0, input.size()) == input.substr(0, length)) << url;
        for (size_t at = input.size(); at < recording.size(); at += 188)
            EXPECT_EQ(recording.substr(at, 4), "\x47\x1F\xFF\x10") << "null packet";
    }
}

TEST(Tool, SendKeepsToThePaceOfAVariableRateUnderRtp) {
    std::string stream = Contents(kSample);
    for (size_t i = 942; i < 1883 * 5 - 942 * 4; i += 5)  // five times the rate in the second half
        for (int n = 0; n < 4; ++n)
            stream.insert(i * 188, "\x47\x1F\xFF\x10" + std::string(184, 'n'));
    std::ofstream("/tmp/variable") << stream;
    Process half = Receive("rtp://:7009", 7009, "-n 177000");
    const auto begin = std::chrono::steady_clock::now();
    Process sender = Process::Tool("send /dev/fd/3 rtp://127.0.0.1:7009 3< /tmp/variable");
    EXPECT_EQ(half.Wait(), 0);
    const auto middle = std::chrono::steady_clock::now();
    EXPECT_EQ(sender.Wait(), 0);  // at the mean rate, the first half would take a sixth of the time
    EXPECT_GT((middle - begin) * 5, (std::chrono::steady_clock::now() - middle) * 2);
}

TEST(Tool, SendSkipsWhatIsNoPacketAndGoesOnWhenAnotherInputFails) {
    const std::string sample = Contents(kSample).substr(0, 400 * 188);
    for (const size_t size : {188u, 204u}) {
        std::string damaged = "in front", whole;
        for (size_t i = 0; i < 400; ++i) {
            std::string packet = sample.substr(i * 188, 188) + std::string(size - 188, 'p');
            if (i != 100 && i != 200)
                whole += packet;
            for (size_t j = i == 50 || i == 300 ? i * 10 : 0; j > 0; --j)
                packet += j % 7 == 0 ? "\x47" : "g";
            if (i == 200)
                packet[0] = 0;
            damaged += i == 100 ? packet.substr(0, 150) : packet;
        }
        std::ofstream("/tmp/damaged") << damaged + "\x47 and a tail";
        std::ofstream("/tmp/sound") << whole;
        const size_t length = (398 + 6) / 7 * 7 * size;
        Process first = Receive("udp://:7005", 7005, "-n " + std::to_string(length));
        Process second = Receive("udp://:7006", 7006, "-n " + std::to_string(length));
        EXPECT_EQ(Process::Tool("send /dev/fd/3 udp://127.0.0.1:7005 /nonexistent "
                                "udp://127.0.0.1:7007 /dev/fd/4 rtp://127.0.0.1:7006 "
                                "3< /tmp/damaged 4< /tmp/sound 2> /tmp/said")
                      .Wait(),
                  1);
        EXPECT_EQ(first.Wait() + second.Wait(), 0) << size;
        EXPECT_TRUE(Contents("/tmp/7005").substr(0, whole.size()) == whole) << size;
        EXPECT_TRUE(Contents("/tmp/7006") == Contents("/tmp/7005")) << size;
        const std::string said = Contents("/tmp/said");
        for (const char* part : {"/nonexistent", "in 6 places", "1 of 3"})
            EXPECT_NE(said.find(part), std::string::npos) << said;
    }
}

TEST(Tool, SendKeepsToStartAndDurationInTheStreamsTimeAndThroughALoop) {
    const std::string sample = Contents(kSample);
    const auto sent = [](const std::string& options) {
        Process receiver = Receive("udp://:7008", 7008);
        EXPECT_EQ(Process::Tool("send " + kSampleArg + " udp://127.0.0.1:7008 " + options).Wait(),
                  0);
        EXPECT_EQ(receiver.End(SIGINT), 0);
        const std::string all = Contents("/tmp/7008");
        return all.substr(0, all.find("\x47\x1F\xFF\x10\xFF\xFF") / 188 * 188);
    };
    const std::string excerpt = sent("--start 0.3 --duration 0.4");
    const double second = 100'000;  // in bytes of the sample
    EXPECT_NEAR(excerpt.size(), 0.4 * second, 0.1 * second);
    EXPECT_NEAR(sample.find(excerpt), 0.3 * second, 0.1 * second);
    const std::string looped = sent("--loop --start 0.3 --duration 1.5 -b 20M");
    const std::string turn = sample.substr(sample.find(excerpt));
    EXPECT_NEAR(looped.size(), 1.5 * second, 0.1 * second);
    EXPECT_TRUE(looped == (turn + turn).substr(0, looped.size()));
}

TEST(Tool, SendWaitsForTheWriterOfAFifoAndForASignal) {
    EXPECT_EQ(mkfifo("/tmp/silent", 0600), 0);
    Process receiver = Receive("udp://:7009", 7009, "-n 1316");
    Process sender("exec " TOOL_COMMAND " send /tmp/silent udp://127.0.0.1:7010 " + kSampleArg +
                   " udp://127.0.0.1:7009 2> /tmp/said");
    EXPECT_EQ(receiver.Wait(), 0);
    EXPECT_EQ(sender.End(SIGTERM), 1);
    EXPECT_NE(Contents("/tmp/said").find("SIGTERM before the end of '/tmp/silent'"),
              std::string::npos);
}

TEST(Tool, DemoShowsSixteenChannelsThatDeliver) {
    const std::string shown = Output(TOOL_COMMAND " demo -d 2 " + kSampleArg);
    size_t delivering = 0;
    for (size_t at = 0; (at = shown.find("  ok\n", at)) != std::string::npos; ++at)
        ++delivering;
    EXPECT_EQ(delivering, 16u) << shown;
}

TEST(Tool, WrongUsageIsTwoAndFailureOneWithOneLineThatSaysWhy) {
    const std::string url = "udp://127.0.0.1:7030";
    const std::vector<std::string> cases[] = {
        {},
        {"send /nonexistent " + url, "send /dev/null " + url, "send /bin/sh " + url,
         "send --start 99 " + kSampleArg + ' ' + url,
         "send " + kSampleArg + " udp://192.0.2.1:7030", "receive udp://192.0.2.1:7030 -",
         "receive " + url + " /nonexistent/file", "receive " + url + " - -d 0.2",
         "receive " + url + " /dev/null --rotate-size 1M"},
        {"", "frobnicate", "send", "send --nonsense " + kSampleArg + ' ' + url,
         "send - " + url + " - udp://127.0.0.1:7031", "send " + kSampleArg + ' ' + url + " x",
         "send " + kSampleArg + ' ' + url + " - " + url, "send - " + url + " --loop",
         "send " + kSampleArg + " http://127.0.0.1:7030",
         "send " + kSampleArg + " udp://localhost:7030",
         "send " + kSampleArg + " udp://127.0.0.1:65536",
         "send " + kSampleArg + ' ' + url + " -b 5x", "send " + kSampleArg + ' ' + url + " -b 0",
         "receive " + url + "?ttl=256 -", "receive " + url + " - -d -1", "demo --duration 0",
         // the rules of configuration files
         "send a udp://[::1]:1 b rtp://[0::1]:1", "receive " + url + " /tmp/x%",
         "receive " + url + " a udp://:7030 b", "relay " + url + " udp://[::1]:1 rtp://[0::1]:1",
         "receive " + url + " - --rotate-time 1", "relay " + url + ' ' + url}};
    for (const int code : {1, 2}) {
        std::vector<Process> commands;
        const auto errors = [code](size_t i) { return "/tmp/" + std::to_string(code * 100 + i); };
        for (size_t i = 0; i < cases[code].size(); ++i)
            commands.push_back(Process::Tool(cases[code][i] + " > /dev/null 2> " + errors(i)));
        for (size_t i = 0; i < cases[code].size(); ++i) {
            EXPECT_EQ(commands[i].Wait(), code) << cases[code][i];
            const std::string said = Contents(errors(i));
            EXPECT_EQ(said.find("qxvrtp: "), 0u) << cases[code][i] << '\n' << said;
            EXPECT_EQ(said.find('\n'), said.size() - 1) << cases[code][i] << '\n' << said;
        }
    }
}

}  // namespace

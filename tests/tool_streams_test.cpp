// The tool as a process, against itself; clients_test.py sets it against other programs.
#include <arpa/inet.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "Excerpt.h"
#include "OwnPace.h"
#include "ToolSupport.h"

namespace {

using Seconds = std::chrono::duration<double>;

// A stream of packets with their number in them, whose PCRs go by `bitrate` at each moment.
std::string Stream(double seconds, double (*bitrate)(double)) {
    std::string stream;
    double time = 0.0;
    double pcr = 0.0;
    for (uint32_t n = 0; time < seconds; ++n) {
        std::array<char, 188> packet{0x47, 1, 0, 0x10};
        if (time >= pcr) {
            pcr = time + 0.03;
            const auto ticks = static_cast<uint64_t>(std::llround(time * 27e6));
            const uint64_t base = ticks / 300, rest = ticks % 300;
            packet[3] = 0x30;
            packet[4] = 7;
            packet[5] = 0x10;
            for (int i = 0; i < 4; ++i)
                packet[6 + i] = static_cast<char>(base >> (25 - 8 * i));
            packet[10] = static_cast<char>(base << 7 | 0x7E | rest >> 8);
            packet[11] = static_cast<char>(rest);
        }
        memcpy(&packet[20], &n, sizeof(n));
        stream.append(packet.data(), packet.size());
        time += 188 * 8 / bitrate(time);
    }
    return stream;
}

// Feeds the shaper as an engine does, with input as it is needed or at most `late` after its time,
// and returns when each datagram left, the first one at 0.
std::vector<double> Departures(ts::OwnPace& shaper, const std::string& stream) {
    std::vector<double> times;
    std::vector<uint8_t> data(7 * 188);
    std::string sent;
    size_t pushed = 0;
    for (ts::Time now{0}; pushed < stream.size() || shaper.next();
         now += std::chrono::milliseconds(1)) {
        for (; shaper.needsInput(now) && pushed < stream.size(); pushed += 188 * 10) {
            const std::string piece = stream.substr(pushed, 188 * 10);
            shaper.push({reinterpret_cast<const uint8_t*>(piece.data()), piece.size()}, now);
            if (pushed + 188 * 10 >= stream.size())
                shaper.finish();
        }
        while (const size_t size = shaper.pull(data, now)) {
            times.push_back(Seconds(now).count());
            sent.append(reinterpret_cast<const char*>(data.data()), size);
        }
    }
    EXPECT_TRUE(sent.substr(0, stream.size()) == stream) << "not a byte is changed";
    return times;
}

TEST(OwnPace, DatagramsLeaveAtTheGivenRateOrAtTheTimeOfThePcrs) {
    const auto constant = [](double) { return 2e6; };
    const auto steps = [](double time) { return std::fmod(time, 4.0) < 2.0 ? 0.5e6 : 8e6; };
    struct Case {
        double (*bitrate)(double);
        std::optional<uint32_t> given;
        bool keepsRate, varies;
        double tolerance;
    };
    const Case cases[] = {{constant, std::nullopt, false, false, 0.002},
                          {constant, std::nullopt, true, false, 0.002},
                          {constant, 4'000'000, true, false, 0.002},
                          {steps, std::nullopt, false, false, 0.3},
                          {steps, std::nullopt, true, true, 0.4}};
    for (const Case& one : cases) {
        const std::string stream = Stream(12.0, one.bitrate);
        ts::OwnPace shaper(188, one.given, one.keepsRate);
        const auto times = Departures(shaper, stream);
        EXPECT_EQ(shaper.varies(), one.varies);
        ASSERT_EQ(times.size(), (stream.size() / 188 + 6) / 7);
        double due = 0.0;
        for (size_t n = 0; n < times.size(); ++n) {
            EXPECT_NEAR(times[n] - times[0], due, one.tolerance) << n;
            for (int packet = 0; packet < 7; ++packet)
                due += 188 * 8 / (one.given ? *one.given : one.bitrate(due));
        }
    }
}

TEST(OwnPace, AStreamWhosePcrsEndGoesOnAtItsRate) {
    std::string stream = Stream(20.0, [](double) { return 1e6; });
    for (size_t at = stream.size() / 4 / 188 * 188; at < stream.size(); at += 188)
        stream.replace(at + 3, 3, std::string("\x10pp"));
    ts::OwnPace shaper(188, std::nullopt, false);
    EXPECT_NEAR(Departures(shaper, stream).back(), 20.0, 0.05);
}

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
        Send('\'' + url + '\'', options + std::string(" < /tmp/input"), "-");
        EXPECT_EQ(receiver.Wait(), 0) << url;
        const std::string recording = Contents("/tmp/" + std::to_string(port++));
        EXPECT_EQ(recording.size(), length);
        EXPECT_TRUE(recording.substr(0, input.size()) == input.substr(0, length)) << url;
        for (size_t at = input.size(); at < recording.size(); at += 188)
            EXPECT_EQ(recording.substr(at, 4), "\x47\x1F\xFF\x10") << "null packet";
    }
}

// When each datagram came to a port of this host, by the kernel's stamps; reads until nothing more
// comes.
std::vector<double> Arrivals(int port, const std::function<void()>& send) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    const int size = 8 << 20;
    setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    timespec stamp{};
    ioctl(socket, SIOCGSTAMPNS, &stamp);  // has the kernel stamp what comes from now on
    send();
    std::vector<double> times;
    for (char data[2048]; recv(socket, data, sizeof(data), MSG_DONTWAIT) > 0;) {
        EXPECT_EQ(ioctl(socket, SIOCGSTAMPNS, &stamp), 0);
        times.push_back(static_cast<double>(stamp.tv_sec) +
                        static_cast<double>(stamp.tv_nsec) / 1e9);
    }
    close(socket);
    return times;
}

// By the kernel's stamps, and for the best of a few runs: a busy machine makes single datagrams
// late, but no stream shorter or longer.
TEST(Tool, SendKeepsThePaceOnTheWire) {
    struct Case {
        const char* scheme;
        double (*bitrate)(double);
        const char* options;
        double factor, tolerance;
    };
    const auto constant = [](double) { return 3e6; };
    const auto steps = [](double time) { return std::fmod(time, 2.0) < 1.0 ? 0.14e6 : 29e6; };
    const Case cases[] = {{"udp", constant, "", 1.0, 0.3},
                          {"rtp", constant, "", 1.0, 0.3},
                          {"rtp", constant, "-b 6M", 2.0, 0.3},
                          {"udp", steps, "", 1.0, 1.0}};
    for (const Case& one : cases) {
        const std::string stream = Stream(5.0, one.bitrate);
        std::ofstream("/tmp/paced") << stream;
        std::vector<double> due;
        double time = 0.0;
        for (size_t n = 0; n < stream.size() / 188; ++n, time += 188 * 8 / one.bitrate(time))
            if (n % 7 == 0)
                due.push_back(time / one.factor);
        double worst = 1e9;
        for (int attempt = 0; attempt < 4 && worst >= one.tolerance; ++attempt) {
            const auto times = Arrivals(7040, [&] {
                Send(one.scheme + std::string("://127.0.0.1:7040"),
                     one.options + std::string(" 3< /tmp/paced"), "/dev/fd/3");
            });
            ASSERT_EQ(times.size(), due.size());
            double furthest = 0.0;
            for (size_t n = 0; n < times.size(); ++n)
                furthest = std::max(furthest, std::abs(times[n] - times[0] - due[n]));
            worst = std::min(worst, furthest);
        }
        EXPECT_LT(worst, one.tolerance) << one.scheme << one.options;
    }
}

// The route goes away for longer than any patience, and later for a moment; to begin with, a
// service waits for it.
TEST(Tool, SendSurvivesOutagesAndSaysSoOnce) {
    const auto lines = [](const char* file) {
        const std::string text = Contents(file);
        return std::count(text.begin(), text.end(), '\n');
    };
    const auto bytes = [] { return std::filesystem::file_size("/tmp/7041"); };
    std::ofstream("/tmp/outage.toml")
        << "[[send]]\ninput = '" << kSample << "'\nurl = 'udp://198.51.100.9:7041'\nloop = true\n";
    Process sender = Process::Tool("send --config /dev/fd/3 3< /tmp/outage.toml 2> /tmp/said");
    Process receiver = Receive("udp://:7041", 7041);
    for (int outage = 0; outage < 3; ++outage) {
        EXPECT_TRUE(Await([&] { return lines("/tmp/said") == 2 * outage + 1; })) << outage;
        usleep(outage == 1 ? 3'500'000 : 10'000);
        const size_t before = bytes();
        EXPECT_EQ(Process("ip addr add 198.51.100.9/32 dev lo").Wait(), 0);
        EXPECT_TRUE(Await([&] { return bytes() > before + 50'000; }, bytes, 15)) << outage;
        EXPECT_TRUE(Await([&] { return lines("/tmp/said") == 2 * outage + 2; })) << outage;
        EXPECT_EQ(Process("ip addr del 198.51.100.9/32 dev lo").Wait(), 0);
    }
    EXPECT_EQ(sender.End(SIGTERM), 0);
    ExpectSaid({"; is there a route to it? Trying on.\n", "goes on after 0:0"});
}

// At ten times its rate, each is repeated three times a second.
TEST(Tool, MemoryOfSixteenLoopsIsSmallAndStaysAsItIs) {
#ifdef QXV_SANITIZED
    GTEST_SKIP() << "a sanitizer takes memory of its own";
#endif
    std::string pairs;
    for (int i = 0; i < 16; ++i)
        pairs += ' ' + kSampleArg + " rtp://127.0.0.1:" + std::to_string(7060 + i);
    Process sender = Process::Tool("send --loop -b 8M" + pairs);
    const std::string status = "/proc/" + std::to_string(sender.Id()) + "/status";
    const auto resident_KiB = [&] {
        return std::stol(Output("awk '/^VmRSS/ {print $2}' " + status));
    };
    const auto sent = [] {
        return std::stol(Output("awk '/^Udp: [0-9]/ {print $5}' /proc/net/snmp"));
    };
    const auto await = [&](long datagrams) {
        const long begin = sent();
        return Await([&] { return sent() > begin + datagrams; }, sent, 15);
    };
    EXPECT_TRUE(await(20'000));
    const long before = resident_KiB();
    EXPECT_TRUE(await(40'000));
    EXPECT_GT(before, 1024);
    EXPECT_LT(before, 32 * 1024);
    EXPECT_LT(resident_KiB(), before + 512);
    EXPECT_EQ(sender.End(SIGTERM), 0);
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
                                "--as-is 3< /tmp/damaged 4< /tmp/sound 2> /tmp/said")
                      .Wait(),
                  1);
        EXPECT_EQ(first.Wait() + second.Wait(), 0) << size;
        EXPECT_TRUE(Contents("/tmp/7005").substr(0, whole.size()) == whole) << size;
        EXPECT_TRUE(Contents("/tmp/7006") == Contents("/tmp/7005")) << size;
        ExpectSaid({"/nonexistent", "in 6 places", "1 of 3"});
    }
}

TEST(Tool, SendKeepsToStartAndDurationInTheStreamsTimeAndThroughALoop) {
    const std::string sample = Contents(kSample);
    const auto sent = [](const std::string& options) {
        Process receiver = Receive("udp://:7008", 7008);
        Send("udp://127.0.0.1:7008", options);
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
    ExpectSaid({"SIGTERM before the end of '/tmp/silent'"});
}

TEST(Tool, DemoShowsSixteenChannelsThatDeliver) {
    const std::string shown = Output(TOOL_COMMAND " demo -d 2 " + kSampleArg);
    size_t delivering = 0;
    for (size_t at = 0; (at = shown.find("  ok\n", at)) != std::string::npos; ++at)
        ++delivering;
    EXPECT_EQ(delivering, 16u) << shown;
}

TEST(Tool, WrongUsageIsTwoAndFailureOneWithOneLineThatSaysWhy) {
    const std::string url = "udp://127.0.0.1:7030", send = "send " + kSampleArg + ' ';
    const std::vector<std::string> cases[] = {
        {},
        {"send /nonexistent " + url, "send /dev/null " + url, "send /bin/sh " + url,
         "send --start 99 " + kSampleArg + ' ' + url, send + "udp://192.0.2.1:7030",
         "receive udp://192.0.2.1:7030 -", "receive " + url + " /nonexistent/file",
         "receive " + url + " - -d 0.2", "receive " + url + " /dev/null --rotate-size 1M"},
        {"frobnicate", "send", "send --nonsense " + kSampleArg + ' ' + url,
         "send - " + url + " - udp://127.0.0.1:7031", send + url + " x", send + url + " - " + url,
         "send - " + url + " --loop", send + "http://127.0.0.1:7030",
         send + "udp://127.0.0.1:65536", send + url + " -b 5x", send + url + " -b 0",
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

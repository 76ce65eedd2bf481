// Recording: where it goes, what it holds, and what happens when something is in the way.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <regex>

#include "PacketSieve.h"
#include "ToolSupport.h"

namespace {

TEST(Tool, ReceiveRotatesFilesAtPacketsAndCountsAndEndsWhenIdle) {
    const std::string all = Contents(kSample);
    const std::string input = all.substr(0, 188 * 700) + all.substr(188 * 701);
    std::ofstream("/tmp/input") << input;
    std::ofstream("/tmp/part-0002.ts") << "kept";
    const std::string url = "udp://127.0.0.1:7100";
    Process idle = Process::Tool("receive udp://127.0.0.1:7104 /dev/null -i 0.3 2> /dev/null");
    Process receiver =
        Record(7100, url +
                         " /tmp/part.ts rtp://127.0.0.1:7102 /no/file --rotate-size 100k -i 2 "
                         "--statistics 2> /tmp/said");
    Send(url, "-b 5M < /tmp/input", "-");
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
    ExpectSaid({"\"files\":4,\"mode\":\"raw\"", "\"datagrams\":269,\"bytes\":354004",
                "\"continuity_errors\":1,\"sync_losses\":0,\"error\":null",
                "cannot write '/no/file-0001'", "qxvrtp: 1 of 2 streams failed\n"});
}

TEST(Tool, ReceiveKeepsAFileWhenThePortIsInUseAndGoesOnWhenADiskWasFull) {
    Process(
        "mkdir /tmp/full && mount -t tmpfs -o size=64k tmpfs /tmp/full && printf kept > /tmp/kept")
        .Wait();
    const std::string url = "udp://127.0.0.1:7120 ";
    Process full =
        Record(7120, url + "/tmp/full/it udp://:7122 /tmp/./full/it -n 354004 2> /tmp/said");
    EXPECT_EQ(
        Process(TOOL_COMMAND " receive " + url + "/tmp/kept --patience 0.5 2> /dev/null").Wait(),
        1);
    EXPECT_EQ(Contents("/tmp/kept"), "kept");
    Send(url);
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
    ASSERT_EQ(mkfifo("/tmp/unread", 0600) + mkfifo("/tmp/late", 0600), 0);
    const int fifo = open("/tmp/unread", O_RDONLY | O_NONBLOCK);
    Process receiver = Record(7125,
                              "udp://127.0.0.1:7124 /tmp/unread udp://127.0.0.1:7125 /tmp/file "
                              "udp://127.0.0.1:7126 /tmp/late --statistics -i 60 2> /tmp/said");
    EXPECT_TRUE(Await([] { return IsBound(7124); }));
    EXPECT_FALSE(IsBound(7126)) << "before there is a reader";
    const int late = open("/tmp/late", O_RDONLY | O_NONBLOCK);
    EXPECT_TRUE(Await([] { return IsBound(7126); }));
    // More than the pipe and the ring hold, and still the others are written.
    Process endless =
        Process::Tool("send " + kSampleArg + " udp://127.0.0.1:7124 -b 100M --loop 2> /dev/null");
    EXPECT_TRUE(Await([] { return Says("/tmp/said", "datagrams from udp://127.0.0.1:7124 are"); }));
    Send("udp://127.0.0.1:7125");
    Send("udp://127.0.0.1:7126");
    EXPECT_TRUE(Await([] { return std::filesystem::file_size("/tmp/file") >= 354004; }));
    EXPECT_EQ(receiver.End(SIGTERM), 1);
    endless.End(SIGTERM);
    EXPECT_TRUE(Contents("/tmp/file") == Contents(kSample));
    std::string read(400'000, '\0');
    EXPECT_EQ(::read(late, read.data(), read.size()), 354004);
    close(fifo);
    close(late);
    ExpectSaid(
        {"bytes from udp://127.0.0.1:7124 after SIGTERM", "qxvrtp: 1 of 3 streams failed\n"});
}

// Sends each text as a datagram, slowly enough for every buffer.
void SendDatagrams(int port, const std::vector<std::string>& datagrams) {
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (const std::string& datagram : datagrams) {
        sendto(sender, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
               sizeof(to));
        usleep(200);
    }
    close(sender);
}

std::string RtpHeader(uint8_t first, uint8_t payloadType, const std::string& behind) {
    return std::string{static_cast<char>(first), static_cast<char>(payloadType)} +
           std::string("\1\2\3\4G\6\7\10\11\12", 10) + behind;
}

TEST(PacketSieve, GivesAllPacketsAndNothingElseHoweverTheStreamIsCut) {
    const std::string sample = Contents(kSample).substr(0, 188 * 420);
    const std::string header = RtpHeader(0x80, 33, "");
    const std::string extended = RtpHeader(0x92, 96, std::string("GABCDEFG\0\1\0\2extended", 20));
    const std::tuple<size_t, size_t, std::string, std::string, uint64_t> cases[] = {
        // packet size, packets in a datagram, in front of and behind them; gaps
        {188, 7, "", "", 0},
        {188, 7, header, "", 60},
        {188, 1, extended, "", 420},
        {188, 3, extended, "", 140},
        {188, 7, "", std::string("\0\0\0\4", 4), 60},
        {204, 7, header, "", 60},
        {204, 2, extended, "", 210}};
    for (const auto& [size, count, front, back, gaps] : cases) {
        std::string stream, packets;
        for (size_t i = 0; i < 420; ++i) {
            const std::string packet =
                sample.substr(i * 188, 188) + std::string(size - 188, static_cast<char>(i));
            stream += (i % count == 0 ? front : "") + packet + (i % count == count - 1 ? back : "");
            packets += packet;
        }
        for (const size_t piece : {size_t{1}, size_t{61}, size_t{1316}, stream.size()}) {
            PacketSieve sieve;
            std::string taken;
            const auto* const data = reinterpret_cast<const uint8_t*>(stream.data());
            size_t begin = 0;
            for (size_t end = 0; end < stream.size();) {
                end = std::min(end + piece, stream.size());
                for (;;) {
                    const auto run = sieve.next({data + begin, end - begin}, end == stream.size());
                    if (run.skip + run.length == 0)
                        break;
                    taken += stream.substr(begin + run.skip, run.length);
                    begin += run.skip + run.length;
                }
            }
            ASSERT_TRUE(taken == packets) << size << ' ' << count << ' ' << piece;
            EXPECT_EQ(sieve.packets(), 420u);
            EXPECT_EQ(sieve.packetSize(), size);
            EXPECT_EQ(sieve.gaps(), gaps) << size << ' ' << count << ' ' << piece;
            EXPECT_EQ(sieve.skippedBytes(), stream.size() - packets.size());
            EXPECT_EQ(sieve.continuityErrors(), 0u);
        }
    }
}

TEST(Tool, ReceiveRecordsWholePacketsThroughChangesOfFormAndSaysWhatItSkipped) {
    const std::string sample = Contents(kSample);
    const std::string forms[] = {"", RtpHeader(0x80, 33, ""), "", RtpHeader(0x80, 96, ""),
                                 RtpHeader(0x90, 33, std::string("\0\0\0\1extd", 8))};
    std::vector<std::string> datagrams;
    for (size_t i = 0; i < 500; ++i)
        datagrams.push_back(forms[i / 100] + sample.substr(i * 3 * 188, 3 * 188));
    Process receiver = Record(7130, "udp://127.0.0.1:7130 /tmp/packets --statistics 2> /tmp/said");
    SendDatagrams(7130, datagrams);
    EXPECT_TRUE(Await([] { return std::filesystem::file_size("/tmp/packets") >= 500 * 564; }));
    EXPECT_EQ(receiver.End(SIGINT), 0);
    EXPECT_TRUE(Contents("/tmp/packets") == sample.substr(0, 1500 * 188));
    // Three headers until the channel knows that RTP comes, then all that are of another form.
    ExpectSaid({"skipped 3236 bytes (203 gaps) that are not TS packets", "\"skipped_bytes\":3236",
                "\"gaps\":203,", "\"datagrams\":500,\"bytes\":282000,\"packets\":1500"});
    Process none = Record(7131, "udp://127.0.0.1:7131 /tmp/none 2> /tmp/said");
    SendDatagrams(7131, {"no packets", "at all"});
    usleep(100'000);
    EXPECT_EQ(none.End(SIGINT), 1);
    ExpectSaid({"not TS packets came from udp://127.0.0.1:7131: 16"});
}

// Standard error is closed for the first; standard output for the second.
TEST(Tool, ReceiveWithClosedStandardStreamsKeepsMessagesOutOfTheRecording) {
    Process receiver = Record(7134, "udp://127.0.0.1:7134 /tmp/own --statistics 0<&- 1>&- 2>&-");
    Send("udp://127.0.0.1:7134");
    EXPECT_TRUE(Await([] { return std::filesystem::file_size("/tmp/own") >= 354004; }));
    EXPECT_EQ(receiver.End(SIGTERM), 0);
    EXPECT_TRUE(Contents("/tmp/own") == Contents(kSample));
    EXPECT_EQ(Process(TOOL_COMMAND " --version >&-").Wait(), 1);
    Process toNobody = Record(7135, "udp://127.0.0.1:7135 - >&- 2> /tmp/said");
    Send("udp://127.0.0.1:7135");
    EXPECT_TRUE(Await([] { return Says("/tmp/said", "cannot write standard output"); }));
    EXPECT_EQ(toNobody.End(SIGTERM), 1);
}

TEST(Tool, ReceiveKeepsToItsDurationAndToTheTimesOfItsFiles) {
    Process endless =
        Process::Tool("send " + kSampleArg + " udp://127.0.0.1:7138 --loop 2> /dev/null");
    Process receiver = Record(7138,
                              "udp://127.0.0.1:7138 /tmp/half.ts --rotate-time 0.5 -d 2.2 "
                              "--statistics 2> /tmp/said");
    EXPECT_EQ(receiver.Wait(), 0);
    endless.End(SIGTERM);
    const std::string figures = Contents("/tmp/said");
    for (const char* figure : {"\"seconds\":(2\\.[2-9]|3\\.[01])", "\"files\":[3-6]\\b"})
        EXPECT_TRUE(std::regex_search(figures, std::regex(figure))) << figures;
    EXPECT_NEAR(static_cast<double>(std::filesystem::file_size("/tmp/half-0002.ts")), 50e3, 30e3);
    EXPECT_EQ(Contents("/tmp/half-0002.ts").substr(0, 1), "\x47");
}

// Each file is found a name at once, so that a signal is soon obeyed.
TEST(Tool, ReceiveEndsSoonWhereThousandsOfFilesHaveTheSameName) {
    std::ofstream input("/tmp/input");
    for (int i = 0; i < 11; ++i)
        input << Contents(kSample);
    input.close();
    Process("mkdir /tmp/names && cd /tmp/names && printf kept > %x.ts && printf kept > %x-0004.ts")
        .Wait();
    Process receiver =
        Record(7140, "udp://127.0.0.1:7140 '/tmp/names/%%x.ts' --rotate-size 188 2> /tmp/said");
    Send("udp://127.0.0.1:7140", "-b 20M 3< /tmp/input", "/dev/fd/3");
    EXPECT_EQ(receiver.End(SIGTERM), 0) << Contents("/tmp/said");
    const auto files = std::distance(std::filesystem::directory_iterator("/tmp/names"), {});
    EXPECT_NEAR(static_cast<double>(files), 11 * 1883, 10);
    EXPECT_EQ(Contents("/tmp/names/%x.ts") + Contents("/tmp/names/%x-0004.ts"), "keptkept");
    EXPECT_EQ(Contents("/tmp/names/%x-0003.ts"), Contents(kSample).substr(2 * 188, 188));
    EXPECT_EQ(Contents("/tmp/names/%x-0005.ts"), Contents(kSample).substr(3 * 188, 188));
}

// What is missing at its start, and what goes while it runs.
TEST(Tool, ReceiveAsAServiceTriesForEverAndSaysSoOnce) {
    std::ofstream("/tmp/config.toml")
        << "receive = [{url = 'udp://127.0.0.1:7144', output = '/tmp/later/one', bytes = 354004},\n"
           "{url = 'udp://192.0.2.45:7145', output = '/tmp/two', bytes = 354004}]\n";
    Process service("exec " TOOL_COMMAND " receive --config /tmp/config.toml 2> /tmp/said");
    EXPECT_TRUE(Await([] { return Says("/tmp/said", "192.0.2.45:7145; "); }));
    Process("mkdir /tmp/later && ip addr add 192.0.2.45/32 dev lo").Wait();
    EXPECT_TRUE(Await([] { return IsBound(7144) && IsBound(7145); }));
    Send("udp://127.0.0.1:7144");
    Send("udp://192.0.2.45:7145");
    EXPECT_EQ(service.Wait(), 0);
    for (const char* file : {"/tmp/later/one", "/tmp/two"})
        EXPECT_TRUE(Contents(file) == Contents(kSample)) << file;
    const std::string said = Contents("/tmp/said");
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 4) << said;
    ExpectSaid({"cannot write '/tmp/later/one': No such file or directory; trying",
                "'/tmp/later/one' is written again", "udp://192.0.2.45:7145 is rec"});
}

}  // namespace

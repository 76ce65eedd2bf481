// Relaying.
#include <cmath>

#include "PacedQueue.h"
#include "ToolSupport.h"

namespace {

// Twenty minutes of a stream of 600 packets a second with a PCR in every 20th.
TEST(PacedQueue, DelayStaysWhateverTheSourcesClockAndPcrs) {
    constexpr double kPacketSeconds = 1.0 / 600.0;
    const std::tuple<double, bool> cases[] = {{300e-6, true}, {-300e-6, true}, {-100e-6, false}};
    for (const auto& [drift, pcrs] : cases) {
        PacedQueue queue;
        uint64_t taken = 0;
        double latest = 0.0;
        for (uint32_t n = 0; n < 600 * 1200; ++n) {
            const bool pcr = pcrs && n % 20 == 0;
            // A base of 45 kHz, in 33 bits, of which the upper 32 stand in four bytes of their own.
            const auto base = static_cast<uint32_t>(n * kPacketSeconds * 45000.0);
            std::array<uint8_t, 188> packet{0x47, 1, 0, uint8_t{0x30}, 7, uint8_t(pcr ? 0x10 : 0)};
            for (int i = 0; i < 4; ++i)
                packet[6 + i] = static_cast<uint8_t>(base >> (24 - 8 * i));
            packet[10] = 0x7E;
            memcpy(&packet[12], &n, sizeof(n));
            const double now = n * kPacketSeconds / (1.0 + drift) + 0.02 * (1.0 + std::sin(n));
            latest = std::max(latest, now);
            queue.add(packet.data(), packet.size(), latest);
            for (auto out = queue.takeDatagram(latest); !out.empty();
                 out = queue.takeDatagram(latest))
                for (size_t at = 0; at < out.size(); at += 188, ++taken)
                    ASSERT_EQ(memcmp(&out[at + 12], &taken, sizeof(n)), 0) << taken;
            const double delay = static_cast<double>(n - taken) * kPacketSeconds;
            ASSERT_NEAR(n < 600 * 10 ? 0.2 : delay, 0.2, 0.1) << drift;
        }
        EXPECT_EQ(queue.offsets(), 1u) << drift;
        EXPECT_NEAR(*queue.bitrate(), 600 * 188 * 8, 5000) << drift;
    }
}

TEST(Tool, RelaySendsToAllThroughPausesAndChangesOfModeAndPacketSize) {
    std::string all = Contents(kSample);
    std::string parity;
    for (size_t at = 0; at < all.size(); at += 188)
        parity += all.substr(at, 188) + std::string(16, '\1');
    std::ofstream("/tmp/parity") << parity;
    all += all;
    // The first of the longer packets is taken for one of the old size, null packets fill its
    // datagram.
    const size_t length = all.size() + 1316 + 269 * 1428;
    const std::string to[] = {"udp://127.0.0.1:7112", "rtp://[::1]:7114", "rtp://239.1.1.1:7116"};
    std::vector<Process> receivers;
    std::string command = "relay udp://127.0.0.1:7110";
    for (const std::string& url : to) {
        receivers.push_back(
            Receive(url, std::stoi(url.substr(url.size() - 4)), "-n " + std::to_string(length)));
        command += ' ' + url;
    }
    Process relay = Process::Tool(command);
    ASSERT_TRUE(Await([] { return IsBound(7110); }));
    size_t sent = 0;
    for (const std::string& input :
         {kSampleArg + " udp", kSampleArg + " rtp", std::string("- rtp")}) {
        EXPECT_EQ(Process::Tool("send " + input + "://127.0.0.1:7110 < /tmp/parity").Wait(), 0);
        sent += all.size() / 2;
        for (const char* file : {"/tmp/7112", "/tmp/7114", "/tmp/7116"})
            EXPECT_TRUE(Await([&] { return std::filesystem::file_size(file) >= sent; })) << sent;
        usleep(600'000);  // a pause, longer than what the relay takes for one
    }
    for (Process& receiver : receivers)
        EXPECT_EQ(receiver.Wait(), 0);
    for (const char* port : {"7112", "7114", "7116"}) {
        const std::string recording = Contents(std::string("/tmp/") + port);
        EXPECT_TRUE(recording.substr(0, all.size()) == all) << port;
        EXPECT_EQ(recording.find(parity.substr(204)), all.size() + 1316) << port;
    }
    EXPECT_EQ(relay.End(SIGTERM), 0);
}

// What is sent to the group on one interface must not come in from the other one again.
TEST(Tool, RelayTakesAGroupFromOneInterfaceToAnother) {
    const std::string link = "ip link add v0 type veth peer name v1 && ip link set v1 up";
    Process(link + " && ip addr add 198.51.100.1/24 dev v0 && ip link set v0 up").Wait();
    const std::string group = "'udp://239.1.1.9:7118?localaddr=";
    const std::string from = group + "127.0.0.1' ", to = group + "198.51.100.1' ";
    Process relay = Process::Tool("relay " + from + to);
    Process receiver = Process::Tool("receive " + to + "- -n 354004 > /tmp/group");
    for (const char* joined : {"ip maddr show lo", "ip maddr show v0"})
        EXPECT_TRUE(Await([&] { return Output(joined).find("239.1.1.9") != std::string::npos; }));
    Send(from, "");
    EXPECT_EQ(receiver.Wait(), 0);
    EXPECT_TRUE(Contents("/tmp/group") == Contents(kSample));
    EXPECT_EQ(relay.End(SIGTERM) + Process("ip link del v0").Wait(), 0);
}

}  // namespace

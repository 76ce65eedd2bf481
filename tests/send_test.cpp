// Send sockets: what leaves, from where, and what does not stop them.
#include <linux/if_ether.h>
#include <sys/time.h>

#include <cstring>

#include "SocketSupport.h"

namespace {

const std::pair<const char*, const char*> kWays[] = {
    {"0.0.0.0", "127.0.0.1"}, {"127.0.0.1", "127.0.0.1"}, {"::", "::1"}, {"::1", "::1"}};

TEST(Send, NobodyListeningLosesNothingOnceSomebodyDoesOnTheSamePort) {
    for (const auto& [local, remote] : kWays) {
        SCOPED_TRACE(local);
        const Sender sender(local, remote);
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < 10; ++i)
                EXPECT_EQ(sender.Send("unheard"), 1u) << i;
            const Receiver receiver(remote, remote);
            ASSERT_TRUE(receiver);
            ASSERT_TRUE(Sender(local, remote).Socket) << "sender that comes after the receiver";
            for (int i = 0; i < 10; ++i)
                EXPECT_EQ(sender.Send(std::to_string(i)), 1u) << i;
            EXPECT_TRUE(Await([&] { return receiver.Count() >= 10; }));
            EXPECT_EQ(receiver.Data(), "0123456789");
        }
    }
}

// Sends a datagram, and returns what its header carries: the TTL or hop limit, the source, and the
// DSCP where there is one.
std::string HeaderOf(const char* local, const char* remote, int ttl) {
    constexpr unsigned char kUdp = 17;
    const int tap = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL));
    EXPECT_EQ(Sender(local, remote, kPort, ttl).Send("x"), 1u);
    unsigned char packet[128] = {};
    const bool six = strchr(remote, ':') != nullptr;
    EXPECT_TRUE(Await([&] {
        return recv(tap, packet, sizeof(packet), MSG_DONTWAIT) > 0 && packet[six ? 6 : 9] == kUdp;
    }));
    close(tap);
    char source[INET6_ADDRSTRLEN] = "";
    inet_ntop(six ? AF_INET6 : AF_INET, packet + (six ? 8 : 12), source, sizeof(source));
    const int dscp = six ? (packet[0] % 16 * 16 + packet[1] / 16) / 4 : packet[1] / 4;
    return std::to_string(packet[six ? 7 : 8]) + " from " + source +
           (dscp != 0 ? " dscp " + std::to_string(dscp) : "");
}

TEST(Send, GroupDatagramsCarryTtlAndLocalAddress) {
    for (const int ttl : {0, 1, 16, 255}) {
        const std::string expected = std::to_string(ttl) + " from ";
        EXPECT_EQ(HeaderOf("127.0.0.5", "239.1.1.1", ttl), expected + "127.0.0.5");
        EXPECT_EQ(HeaderOf("::1", "ff15::1", ttl), expected + "::1");
    }
    EXPECT_EQ(HeaderOf("127.0.0.5", "127.0.0.1", 5), "64 from 127.0.0.5") << "no group";
}

TEST(Send, DatagramsCarryTheDscpOfTheRemoteAddress) {
    EXPECT_EQ(HeaderOf("127.0.0.5", "239.1.1.1?dscp=34", 1), "1 from 127.0.0.5 dscp 34");
    EXPECT_EQ(HeaderOf("127.0.0.5", "1.2.3.4@232.1.1.1?dscp=1", 1), "1 from 127.0.0.5 dscp 1");
    EXPECT_EQ(HeaderOf("127.0.0.5", "127.0.0.1?dscp=63", 1), "64 from 127.0.0.5 dscp 63");
    EXPECT_EQ(HeaderOf("::1", "ff15::1?dscp=46", 1), "1 from ::1 dscp 46");
    EXPECT_EQ(HeaderOf("::1", "::1?dscp=0", 1), "64 from ::1");
}

// A send queue that drains slowly makes the sends block, where signals can interrupt them.
TEST(Send, FullQueueIsWaitedForUnderSignalsAndGivenUpWhenItDoesNotMove) {
    static volatile sig_atomic_t signals;
    const Interfaces interfaces;
    const Sender sender("10.77.0.1", "239.1.1.1");
    ASSERT_EQ(system("tc qdisc add dev a0 root tbf rate 100mbit burst 128k limit 8m"), 0);
    struct sigaction action {};
    action.sa_handler = [](int) { signals = signals + 1; };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval storm{{0, 500}, {0, 500}};
    const itimerval calm{};
    setitimer(ITIMER_REAL, &storm, nullptr);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(sender.Send(std::string(65507, 'x')), 1u) << i;
    EXPECT_GT(signals, 20);

    ASSERT_EQ(system("tc qdisc replace dev a0 root tbf rate 8kbit burst 2k limit 8m"), 0);
    const auto start = std::chrono::steady_clock::now();
    int sent = 0;
    while (sent < 100 && sender.Send(std::string(65507, 'x')) == 1)
        ++sent;
    setitimer(ITIMER_REAL, &calm, nullptr);
    EXPECT_LT(sent, 100);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace

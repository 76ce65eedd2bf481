// Receive sockets: who gets which datagram, and what is left when they are gone.
#include <fcntl.h>
#include <netinet/udp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cstring>
#include <sstream>

#include "SocketSupport.h"

namespace {

// Each row's words: what there is, a local and a remote address, and where a stream comes to.
using Scene = std::vector<std::array<std::string, 4>>;

std::vector<Scene> Scenes() {
    std::vector<Scene> scenes;
    for (const std::string& row : Cases("receive_scenes.txt")) {
        if (row.starts_with("scene"))
            scenes.emplace_back();
        std::istringstream text(row);
        auto& words = scenes.back().emplace_back();
        for (std::string& word : words)
            text >> word;
    }
    return scenes;
}

// Every stream is sent twice: what went astray in the first round has arrived before what every
// socket awaits from the second.
TEST(Receive, EverySocketGetsItsOwnDatagramsOnly) {
    std::unique_ptr<Interfaces> interfaces;
    const auto before = Footprint();
    for (const Scene& scene : Scenes()) {
        SCOPED_TRACE(testing::PrintToString(scene));
        const int32_t everywhere = scene[0][1] == "everywhere";
        std::vector<std::unique_ptr<Receiver>> receivers;
        for (const auto& [what, local, remote, to] : scene) {
            if (what == "interfaces")
                interfaces = std::make_unique<Interfaces>();
            if (what != "socket" && what != "refused")
                continue;
            auto receiver = std::make_unique<Receiver>(local, remote, kPort, everywhere);
            EXPECT_EQ(static_cast<bool>(*receiver), what == "socket") << local << ' ' << remote;
            if (what == "socket")
                receivers.push_back(std::move(receiver));
        }
        std::vector<std::string> expected(receivers.size());
        for (int round = 0; round < 2; ++round) {
            char name = 'a';
            for (const auto& [what, local, remote, to] : scene) {
                if (what != "stream")
                    continue;
                EXPECT_EQ(Sender(local, remote).Send({++name}), 1u) << remote;
                for (const char number : to == "-" ? "" : to)
                    expected.at(static_cast<size_t>(number - '0')) += name;
            }
            for (size_t i = 0; i < expected.size(); ++i)
                ASSERT_TRUE(Await([&] { return receivers[i]->Count() >= expected[i].size(); }))
                    << i;
        }
        for (size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ(receivers[i]->Data(), expected[i]) << i;
    }
    interfaces.reset();
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
}

// Of all kinds: on a named interface, with a zone, on all of them, of the system's choice by a
// route.
TEST(Receive, GroupsAreJoinedAgainWhenTheirInterfaceWasMadeAnew) {
    const auto before = Footprint();
    auto interfaces = std::make_unique<Interfaces>();
    ASSERT_EQ(system("ip route add 239.1.1.4 dev a0"), 0);
    const std::pair<const char*, const char*> groups[] = {{"10.77.0.1", "239.1.1.1"},
                                                          {"0.0.0.0", "239.1.1.2"},
                                                          {"fd77:0::1", "ff15::1"},
                                                          {"::", "ff15::2"},
                                                          {"::", "ff02::1:5%a0"},
                                                          {"10.77.0.1", "10.77.0.1@232.1.1.1"},
                                                          {"0.0.0.0", "10.77.0.1@232.1.1.2"},
                                                          {"fd77:0::1", "fd77:0::1@ff3e::1"},
                                                          {"0.0.0.0", "239.1.1.4"}};
    std::vector<std::unique_ptr<Receiver>> receivers;
    for (const auto& [local, group] : groups) {
        const int32_t everywhere = group[strlen(group) - 1] == '2';
        receivers.push_back(std::make_unique<Receiver>(local, group, kPort, everywhere));
        ASSERT_TRUE(*receivers.back()) << group;
    }
    // Another interface that has the route from now on is no reason to leave one that is there.
    ASSERT_EQ(system("ip route replace 239.1.1.4 dev a1 && ip link set a1 mtu 1400"), 0);
    for (int i = 0; i < 200; ++i) {  // for as long as two looks take
        Sender("10.77.0.1", "239.1.1.4").Send("x");
        usleep(10000);
    }
    EXPECT_TRUE(Await([&] { return receivers.back()->Count() == 200; }));
    ASSERT_EQ(system("ip route replace 239.1.1.4 dev a0"), 0);
    for (int round = 0; round < 4; ++round) {
        for (size_t i = 0; i < receivers.size(); ++i) {
            const size_t count = receivers[i]->Count();
            EXPECT_TRUE(Await([&] {
                const bool six = strchr(groups[i].second, ':') != nullptr;
                Sender(six ? "fd77:0::1" : "10.77.0.1", groups[i].second).Send("x");
                return receivers[i]->Count() > count;
            })) << round
                << groups[i].second;
        }
        if (round == 0) {
            interfaces.reset();
            interfaces = std::make_unique<Interfaces>();
        } else if (round == 1) {  // memberships stay
            ASSERT_EQ(system("ip link set a0 down && ip link set a0 name b0 && ip link set b0 up &&"
                             " ip link set b0 down && ip link set b0 name a0 && ip link set a0 up"),
                      0);
            ASSERT_EQ(system("ip -6 addr add fd77:0::1/64 dev a0 nodad 2>/dev/null; true"), 0);
        } else {  // with so small an MTU the kernel takes both families away, and their memberships
            ASSERT_EQ(system("ip link set a0 mtu 60 && ip link set a0 mtu 1500 &&"
                             " ip addr add 10.77.0.1/24 dev a0 &&"
                             " ip addr add fd77:0::1/64 dev a0 nodad"),
                      0);
        }
        ASSERT_EQ(system("ip route add 239.1.1.4 dev a0"), 0);
    }
    receivers.clear();
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
}

const auto ignore = [](void*, void*, sockaddr*, unsigned char*, unsigned int) {};

TEST(Create, WrongArgumentsAreRefused) {
    const char* const own = "127.0.0.1";
    for (const char* const local : {"::1", "239.1.1.1", "192.0.2.1", ""})
        EXPECT_FALSE(Sender(local, own).Socket) << local;
    for (const int32_t send : {0, 1}) {
        const auto create = [&](const char* local, uint32_t port, int32_t multicast, int32_t ttl) {
            return ZAQUDPSocket_Create(local, own, port, port, multicast, send, 0, ttl, ignore,
                                       nullptr);
        };
        EXPECT_EQ(create(nullptr, kPort, 0, 1), nullptr);
        EXPECT_EQ(create(own, 65536, 0, 1), nullptr);
        EXPECT_EQ(create(own, kPort, 1, 1), nullptr);
        EXPECT_EQ(create(own, kPort, 0, 256), nullptr);
        EXPECT_EQ(create(own, kPort, 0, -1), nullptr);
    }
    EXPECT_EQ(ZAQUDPSocket_Create(own, own, kPort, kPort, 0, 0, 0, 1, nullptr, nullptr), nullptr);
    ZAQUDPSocket_Destroy(nullptr);
    EXPECT_EQ(ZAQUDPSocket_GetContext(nullptr), nullptr);
    EXPECT_EQ(ZAQUDPSocket_SendAll(nullptr, nullptr, 0), 0u);
}

// Not even by a program that would share it.
TEST(Create, ANamedPortCanNotBeTaken) {
    for (const char* const own : {"127.0.0.1", "::1"}) {
        const Receiver receiver(own, own);
        ASSERT_TRUE(receiver);
        addrinfo* address = nullptr;
        ASSERT_EQ(getaddrinfo(own, std::to_string(kPort).c_str(), nullptr, &address), 0);
        const int thief = socket(address->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(thief, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), 0);
        EXPECT_EQ(setsockopt(thief, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on)), 0);
        EXPECT_EQ(bind(thief, address->ai_addr, address->ai_addrlen), -1) << own;
        freeaddrinfo(address);
        close(thief);
    }
}

// A group on the port makes all of them share it, so that the system no longer keeps them apart.
TEST(Create, OneOfManyThatWantAPortAtOnceGetsIt) {
    for (const char* const any : {"0.0.0.0", "::"}) {
        const bool six = strchr(any, ':') != nullptr;
        const Receiver group(any, six ? "ff15::1" : "239.1.1.1");
        ASSERT_TRUE(group);
        for (int round = 0; round < 300; ++round) {
            constexpr int kRivals = 3;
            std::barrier start(kRivals);
            void* sockets[kRivals] = {};
            {
                std::vector<std::jthread> rivals;
                for (void*& socket : sockets)
                    rivals.emplace_back([&] {
                        start.arrive_and_wait();
                        socket =
                            ZAQUDPSocket_Create(any, any, kPort, 0, 0, 0, 0, 0, ignore, nullptr);
                    });
            }
            EXPECT_EQ(std::ranges::count(sockets, nullptr), kRivals - 1) << any << ' ' << round;
            std::ranges::for_each(sockets, ZAQUDPSocket_Destroy);
        }
    }
}

// A group on all interfaces, with the watch, and a sender to it.
TEST(Create, AndDestroyTakeNoStandardStreamAndLeaveAPendingCancellationPending) {
    EXPECT_EQ(Reap(Fork([] {
                  for (int file = 0; file < 3; ++file)
                      close(file);
                  const auto before = Footprint();
                  const char* const group = "ff12::1%lo";
                  int states[2] = {};
                  pthread_cancel(pthread_self());
                  void* const receiver =
                      ZAQUDPSocket_Create("::", group, kPort, kPort, 1, 0, 1, 0, ignore, nullptr);
                  void* const sender =
                      ZAQUDPSocket_Create("::1", group, kPort, kPort, 1, 1, 0, 1, nullptr, nullptr);
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &states[0]);
                  // But for moments, as in getifaddrs().
                  const bool free = Await([] {
                      return fcntl(0, F_GETFD) + fcntl(1, F_GETFD) + fcntl(2, F_GETFD) == -3;
                  });
                  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
                  ZAQUDPSocket_Destroy(receiver);
                  ZAQUDPSocket_Destroy(sender);
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &states[1]);
                  return receiver != nullptr && sender != nullptr && free &&
                                 states[0] + states[1] == 2 * PTHREAD_CANCEL_ENABLE &&
                                 Await([&] { return Footprint() == before; })
                             ? 0
                             : 1;
              })),
              0);
}

TEST(Receive, DatagramsOfAllSizesArriveWholeWithTheirSourceAndLargerOnesAreNotSent) {
    const Receiver receivers[] = {{"127.0.0.1", "0.0.0.0"}, {"::1", "::"}};
    const Sender senders[] = {{"127.0.0.2", "127.0.0.1"}, {"::1", "::1"}};
    size_t before = 0;
    for (const size_t size : {0, 1, 1316, 2048, 65507, 2}) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<char>(i * 7 + size);
        // In turn from both families, so that what the one leaves in the library's storage would
        // show in the other.
        for (const int six : {0, 1}) {
            EXPECT_EQ(senders[six].Send(std::string(six ? 65528 : 65508, 'x')), 0u);
            ASSERT_EQ(senders[six].Send(data), 1u);
            ASSERT_TRUE(Await([&] { return receivers[six].Count() > before; })) << size;
            const auto [got, source] = receivers[six].All().back();
            EXPECT_TRUE(got == data) << size << " came as " << got.size();
            EXPECT_EQ(source.find(six ? "::1 " : "127.0.0.2 "), 0u) << source;
            EXPECT_EQ(source, receivers[six].All().front().second);
        }
        ++before;
    }
}

TEST(Receive, ATrainThatComesAsOneMessageIsDeliveredDatagramByDatagram) {
    const Receiver receiver("127.0.0.1", "0.0.0.0");
    const int train = SocketTo(kPort);
    const int segment = 1316;  // udp(7), UDP_SEGMENT: the kernel cuts what is sent
    ASSERT_EQ(setsockopt(train, SOL_UDP, UDP_SEGMENT, &segment, sizeof(segment)), 0);
    std::string data(40 * 1316 + 100, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / 1316);
    ASSERT_EQ(send(train, data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    ASSERT_TRUE(Await([&] { return receiver.Count() >= 41; }));
    EXPECT_TRUE(receiver.Data() == data);
    EXPECT_EQ(receiver.All()[39].first.size(), 1316u);
    EXPECT_EQ(receiver.All()[40].first.size(), 100u);
    close(train);
}

// Does the thread block the signals that hosts handle?
bool BlocksSignals() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGINT) + sigismember(&mask, SIGALRM) + sigismember(&mask, SIGUSR1) ==
           3;
}

TEST(Receive, BurstThatComesWhileACallbackBlocksIsKeptInOrderByAThreadWithoutSignals) {
    constexpr size_t kDatagrams = 3000;
    for (const char* const remote : {"127.0.0.1", "239.1.1.1"}) {
        std::mutex gate;
        std::unique_lock closed(gate);
        bool blocked = false;
        Receiver receiver("127.0.0.1", remote, kPort, 0, [&](void*) {
            const std::lock_guard passing(gate);
            blocked = BlocksSignals();
        });
        const Sender sender("127.0.0.1", remote);
        for (size_t i = 0; i < kDatagrams; ++i)
            ASSERT_EQ(sender.Send(std::to_string(i) + std::string(1300, ' ')), 1u);
        closed.unlock();
        EXPECT_TRUE(Await([&] { return receiver.Count() == kDatagrams; })) << receiver.Count();
        size_t next = 0;
        for (const auto& [data, source] : receiver.All())
            ASSERT_EQ(std::stoul(data), next++);
        receiver.Destroy();
        EXPECT_TRUE(blocked);
        EXPECT_FALSE(BlocksSignals()) << "the host's own thread";
    }
}

TEST(Destroy, UnderTrafficNoCallbackRunsOrBeginsAfterIt) {
    const auto before = Footprint();
    std::atomic<int> faults = 0;
    const auto openAndDestroy = [&faults](uint32_t port) {
        std::vector<std::unique_ptr<Receiver>> receivers;  // kept for callbacks that come too late
        std::atomic<int> open = -1;
        std::atomic<bool> inside = false;
        for (int round = 0; round < 100; ++round) {
            open = round;
            receivers.push_back(std::make_unique<Receiver>(
                "127.0.0.1", "0.0.0.0", port, 0, [&faults, &open, &inside, round](void*) {
                    faults += inside.exchange(true) || open != round;
                    usleep(200);
                    faults += open != round;
                    inside = false;
                }));
            EXPECT_TRUE(Await([&] { return receivers.back()->Count() > 0; }));
            receivers.back()->Destroy();
            open = -1;
        }
    };
    std::jthread traffic([](const std::stop_token& stop) {
        for (uint32_t i = 0; !stop.stop_requested(); ++i) {
            Sender("0.0.0.0", "127.0.0.1", kPort + i % 3).Send("x");
            usleep(20);
        }
    });
    std::vector<std::jthread> threads;
    for (const uint32_t port : {kPort + 0u, kPort + 1u, kPort + 2u})
        threads.emplace_back(openAndDestroy, port);
    threads.clear();
    traffic = {};
    EXPECT_EQ(faults, 0);
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
}

TEST(Destroy, InACallbackEndsOwnAndOtherSocketsAndAllowsANewOne) {
    enum Case { kOwn, kOwnAndNew, kOtherOwnAndNew };
    const auto before = Footprint();
    for (const Case which : {kOwn, kOwnAndNew, kOtherOwnAndNew}) {
        SCOPED_TRACE(which);
        std::mutex gate;
        std::unique_lock closed(gate);
        std::atomic<bool> done = false;
        std::unique_ptr<Receiver> next;
        size_t otherCount = 0;
        Receiver other("127.0.0.1", "0.0.0.0", kPort + 1);
        if (which != kOtherOwnAndNew)
            other.Destroy();
        Receiver first("127.0.0.1", "0.0.0.0", kPort, 0, [&](void* socket) {
            const std::lock_guard passing(gate);
            if (first.Count() < 2)
                return;  // the next call begins a batch of all that have come meanwhile
            other.Destroy();
            otherCount = other.Count();
            ZAQUDPSocket_Destroy(socket);
            if (which != kOwn)
                next = std::make_unique<Receiver>("127.0.0.1", "0.0.0.0");
            done = true;
        });
        for (uint32_t i = 0; i < 40; ++i)
            ASSERT_EQ(Sender("0.0.0.0", "127.0.0.1", kPort + i % 2).Send("x"), 1u);
        closed.unlock();
        ASSERT_TRUE(Await([&] { return done.load(); }));
        first.Forget();
        if (which == kOwn) {
            EXPECT_TRUE(Await([&] { return Footprint().second == before.second; }));
            next = std::make_unique<Receiver>("127.0.0.1", "0.0.0.0");
        }
        const Sender sender("0.0.0.0", "127.0.0.1");
        EXPECT_TRUE(Await([&] { return sender.Send("x") == 1 && next->Count() > 0; }));
        EXPECT_EQ(first.Data(), "xx");
        EXPECT_EQ(other.Count(), otherCount);
    }
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
}

}  // namespace

// A host whose thread does not come on: its memory is not there, it is being cancelled, or a
// library is being loaded. Nobody else is held up.
#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <future>

#include "ModuleLibrary.h"

void (*g_PluginWork)() = nullptr;  // loader_plugin.cpp

namespace {

// A page of memory whose use waits until it is brought, as with a file on a server that does not
// answer: the access is tried again whenever the handler of its fault returns.
class AbsentPage {
  public:
    AbsentPage() {
        struct sigaction action {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t* fault, void*) {
            s_Fault = reinterpret_cast<uintptr_t>(fault->si_addr);
            usleep(1000);
        };
        sigaction(SIGSEGV, &action, nullptr);
    }
    ~AbsentPage() { munmap(m_Address, kBytes); }
    uint8_t* Bytes() const { return static_cast<uint8_t*>(m_Address); }
    bool IsAwaited() const {
        const auto begin = reinterpret_cast<uintptr_t>(m_Address);
        return Await([&] { return s_Fault - begin < kBytes; });
    }
    void Bring() const { EXPECT_EQ(mprotect(m_Address, kBytes, PROT_READ | PROT_WRITE), 0); }

  private:
    static constexpr size_t kBytes = 4096;
    static inline std::atomic<uintptr_t> s_Fault = 0;
    void* const m_Address = mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

// A thread that moves bytes between the page and channel 0, and waits for the page.
class StalledTransfer {
  public:
    StalledTransfer(const ModuleLibrary& module, uint32_t direction)
        : m_Result(std::async(std::launch::async, [this, &module, direction] {
              return direction == kSend
                         ? QXV(module, Send)(module.Handle, 0, m_Page.Bytes(), 1316)
                         : QXV(module, Receive)(module.Handle, 0, m_Page.Bytes(), 1316);
          })) {
        EXPECT_TRUE(m_Page.IsAwaited());
    }
    void ExpectItGoesOn() {
        EXPECT_EQ(m_Result.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        m_Page.Bring();
        m_Result.get();  // that of a cancelled channel, or not
    }

  private:
    AbsentPage m_Page;
    std::future<uint32_t> m_Result;
};

// Everything but the transfer itself, on the same channel, and a receive channel that housekeeping
// has to open.
void UseAllOthers(const ModuleLibrary& module, uint32_t direction) {
    void* const handle = module.Handle;
    RtpChannelConfig config;
    QXV_RTP_Statistics now{};
    now.Size = sizeof(now);
    uint32_t bitrate = 0;
    EXPECT_EQ(QXV(module, GetConfig)(handle, direction, 0, &config) +
                  QXV(module, SetConfig)(handle, direction, 0, &config) +
                  QXV(module, GetStatistics)(handle, direction, 0, &now) +
                  QXV(module, GetBitrate)(handle, 0, &bitrate),
              4u);
    EXPECT_EQ(QXV(module, SetBitrate)(handle, 0, 1000000), 1u);
    Session(module, 1).Exchange(100);
}

TEST(Stall, OfAHostsPageHoldsUpOnlyTheThreadThatUsesIt) {
    for (const uint32_t direction : {kSend, kReceive}) {
        SCOPED_TRACE(direction);
        const ModuleLibrary module;
        alarm(60);
        auto session = std::make_unique<Session>(module, 0);
        const std::vector<uint8_t> data(2 * 1316, 0x47);
        EXPECT_EQ(QXV(module, Send)(module.Handle, 0, data.data(), 2 * 1316), 1u);
        StalledTransfer transfer(module, direction);
        UseAllOthers(module, direction);
        // The ring in use is replaced by a start, and the next one taken away by an end.
        EXPECT_EQ(direction == kSend ? QXV(module, SendStart)(module.Handle, 0, 1000000, 100)
                                     : QXV(module, ReceiveStart)(module.Handle, 0),
                  1u);
        StalledTransfer second(module, kSend);
        UseAllOthers(module, direction);
        session.reset();
        transfer.ExpectItGoesOn();
        second.ExpectItGoesOn();
        alarm(0);
    }
}

TEST(Stall, OfAHostsPageDoesNotHoldUpExit) {
    for (const uint32_t direction : {kSend, kReceive})
        EXPECT_EQ(Reap(Fork([direction] {
                      static const auto* const module = new ModuleLibrary;
                      static const auto* const session = new Session(*module, 0);
                      const std::vector<uint8_t> data(2 * 1316, 0x47);
                      EXPECT_EQ(QXV(*module, Send)(module->Handle, 0, data.data(), 2 * 1316), 1u);
                      static const auto* const transfer = new StalledTransfer(*module, direction);
                      usleep(1200000);  // housekeeping comes by once a second
                      return session != nullptr && transfer != nullptr ? 7 : 0;
                  })),
                  7);
}

// Functions that close, join or open would end the process if the cancellation came upon them.
TEST(Stall, ACancellationThatIsPendingWaits) {
    static const ModuleLibrary module;
    static std::atomic<int> done;
    pthread_t thread;
    const auto body = [](void*) -> void* {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        pthread_cancel(pthread_self());
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        for (const char* remote : {"127.0.0.1", "239.7.7.7"}) {
            for (const uint32_t direction : {kSend, kReceive}) {
                RtpChannelConfig config = Loopback(3, 1);
                strcpy(config.RemoteAddress, remote);
                config.Multicast = remote[0] == '2';
                done += QXV(module, SetConfig)(module.Handle, direction, 3, &config) == 1;
            }
            for (int start = 0; start < 2; ++start)
                done += QXV(module, SendStart)(module.Handle, 3, 1000000, 100) == 1 &&
                        QXV(module, ReceiveStart)(module.Handle, 3) == 1;
            auto& records = static_cast<RtpContext*>(module.Handle)->Channels;
            const auto opened = [&] {
                return records[kSend][3].Reopen + records[kReceive][3].Reopen == 0;
            };
            for (int i = 0; i < 100000000 && !opened(); ++i)  // no sleep: that would be its end
                sched_yield();
            done += opened() && QXV(module, SendEnd)(module.Handle, 3) == 1 &&
                    QXV(module, ReceiveEnd)(module.Handle, 3) == 1;
        }
        int state = PTHREAD_CANCEL_DISABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        done += state == PTHREAD_CANCEL_ENABLE;  // as it was
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(done, 11);
    Session(module, 0).Exchange(10);
}

// A library that is being loaded, or unloaded, holds the loader's lock and waits for a thread that
// starts or ends channels.
TEST(Stall, NoStartOrEndWaitsForTheLoader) {
    static const ModuleLibrary module;
    // Looked up before, since that takes the lock, too.
    static const auto startSend = QXV(module, SendStart);
    static const auto startReceive = QXV(module, ReceiveStart);
    static const auto endSend = QXV(module, SendEnd);
    static const auto endReceive = QXV(module, ReceiveEnd);
    static uint32_t started, ended;
    alarm(30);
    g_PluginWork = [] {
        started = startSend(module.Handle, 0, 1000000, 100) + startReceive(module.Handle, 0);
    };
    void* const plugin = dlopen(PLUGIN_PATH, RTLD_NOW);
    ASSERT_NE(plugin, nullptr) << dlerror();
    g_PluginWork = [] { ended = endSend(module.Handle, 0) + endReceive(module.Handle, 0); };
    EXPECT_EQ(dlclose(plugin), 0);
    alarm(0);
    EXPECT_TRUE(started == 2 && ended == 2);
}

}  // namespace

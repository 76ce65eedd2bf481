// The module's classes on their own, beside what moves the same bytes with less, or is in wide use.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/lockfree/spsc_queue.hpp>
#include <cstring>
#include <memory>
#include <vector>

#include "Module.h"
#include "QXV_RTP.h"
#include "ZAQSimpleBuffer.h"
#include "ZAQStreamTimer.h"

namespace {

constexpr uint32_t kBlock = 7 * 188;

// Each queue takes and gives whole blocks, or returns false.

struct Ring {
    explicit Ring(uint32_t size) : ring(size) {}
    bool push(unsigned char* block) { return ring.Write(block, kBlock) != 0; }
    bool pop(unsigned char* block) { return ring.Read(block, kBlock) != 0; }
    CZAQSimpleBuffer ring;
};

// The C library's memcpy() with a size that the compiler does not know, as the ring calls it.
const uint32_t kCopied = []() noexcept {
    const volatile uint32_t size = kBlock;
    return size;
}();

// As many copies through as much memory, with the least that tells the threads from each other: two
// counts of blocks, and of the other's count a copy that is renewed only when it says "full" or
// "empty".
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): each thread has a cache line of its own
class Memcpy {
  public:
    explicit Memcpy(uint32_t size) : blocks_(size / kBlock), memory_(new unsigned char[size]) {}

    bool push(const unsigned char* block) {
        const uint64_t written = written_.load(std::memory_order_relaxed);
        if (written - readSeen_ == blocks_ &&
            written - (readSeen_ = read_.load(std::memory_order_acquire)) == blocks_)
            return false;
        memcpy(&memory_[writePlace_ * kBlock], block, kCopied);
        writePlace_ = writePlace_ + 1 == blocks_ ? 0 : writePlace_ + 1;
        written_.store(written + 1, std::memory_order_release);
        return true;
    }
    bool pop(unsigned char* block) {
        const uint64_t read = read_.load(std::memory_order_relaxed);
        if (read == writtenSeen_ &&
            read == (writtenSeen_ = written_.load(std::memory_order_acquire)))
            return false;
        memcpy(block, &memory_[readPlace_ * kBlock], kCopied);
        readPlace_ = readPlace_ + 1 == blocks_ ? 0 : readPlace_ + 1;
        read_.store(read + 1, std::memory_order_release);
        return true;
    }

  private:
    const uint64_t blocks_;
    const std::unique_ptr<unsigned char[]> memory_;
    alignas(64) std::atomic<uint64_t> written_{0};
    uint64_t writePlace_ = 0;
    uint64_t readSeen_ = 0;
    alignas(64) std::atomic<uint64_t> read_{0};
    uint64_t readPlace_ = 0;
    uint64_t writtenSeen_ = 0;
};

struct BoostBlocks {
    using Block = std::array<unsigned char, kBlock>;
    explicit BoostBlocks(uint32_t size) : queue(size / kBlock) {}
    bool push(const unsigned char* block) {
        return queue.push(*reinterpret_cast<const Block*>(block));
    }
    bool pop(unsigned char* block) { return queue.pop(*reinterpret_cast<Block*>(block)); }
    boost::lockfree::spsc_queue<Block> queue;
};

void pauseProcessor() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#else
    asm volatile("" ::: "memory");
#endif
}

// A thread that finds the queue full or empty leaves it alone for about a microsecond, and does not
// take the other's cache line away from it all the time; the module's threads wait for longer.
// After many such waits the other thread may need this processor.
void untilDone(const auto& attempt) {
    for (int tries = 1; !attempt(); ++tries) {
        for (int wait = 0; wait < 32; ++wait)
            pauseProcessor();
        if (tries % 64 == 0)
            sched_yield();
    }
}

template <typename Queue>
void TwoThreads(benchmark::State& state) {
    static std::unique_ptr<Queue> queue;
    // Threads wait for each other at the loop's begin and end.
    if (state.thread_index() == 0)
        queue = std::make_unique<Queue>(static_cast<uint32_t>(state.range(0)));
    alignas(64) std::array<unsigned char, kBlock> block{};
    const bool writes = state.thread_index() == 0;
    for ([[maybe_unused]] auto _ : state) {
        if (writes)
            untilDone([&] { return queue->push(block.data()); });
        else
            untilDone([&] { return queue->pop(block.data()); });
        benchmark::ClobberMemory();
    }
    if (!writes)
        state.SetItemsProcessed(state.iterations());
}

constexpr int kSmallRing = 256 << 10;  // of a send channel
constexpr int kLargeRing = 4 << 20;    // of a receive channel

#define RING_BENCHMARK(Queue) \
    BENCHMARK(TwoThreads<Queue>)->Arg(kSmallRing)->Arg(kLargeRing)->Threads(2)->UseRealTime()
RING_BENCHMARK(Ring);
RING_BENCHMARK(Memcpy);
RING_BENCHMARK(BoostBlocks);

// Nothing is due: what every pass of an idle or waiting transmit thread asks.
void GetTxBlocks(benchmark::State& state) {
    CZAQStreamTimer timer;
    timer.TxInitialize(kBlock, 8'000'000);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(timer.GetTxBlocks());
}
BENCHMARK(GetTxBlocks);

void FillRTPHeader(benchmark::State& state) {
    CZAQStreamTimer timer;
    timer.TxInitialize(kBlock, 8'000'000);
    unsigned char header[12];
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(timer.FillRTPHeader(header));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(FillRTPHeader);

// The intake of one RTP datagram by a started channel, called as the socket library does.
void RxProcessDatagram(benchmark::State& state) {
    constexpr uint32_t kPause = 2048;  // datagrams, after which the ring is emptied
    void* const handle = QXV_RTP_Create(0);
    RtpChannelConfig config{"127.0.0.1", "127.0.0.1", 0, 1, 0, 0, 5000, 0};
    if (handle == nullptr || QXV_RTP_SetConfig(handle, QXV_RTP_RECEIVE, 0, &config) == 0 ||
        QXV_RTP_ReceiveStart(handle, 0) == 0)
        return state.SkipWithError("the channel does not start");
    void* socket = nullptr;
    for (int wait = 0; wait < 500 && socket == nullptr; ++wait) {
        usleep(10000);
        socket = g_ContextExt[0][QXV_RTP_RECEIVE][0].Socket.load();
    }
    if (socket == nullptr)
        return state.SkipWithError("the channel has no socket");

    std::vector<unsigned char> datagram(12 + kBlock, 0x47);
    datagram[0] = 0x80;
    datagram[1] = 33;
    std::vector<unsigned char> space(size_t{kPause} * kBlock);
    uint32_t held = 0;
    for ([[maybe_unused]] auto _ : state) {
        RxProcess(socket, nullptr, nullptr, datagram.data(),
                  static_cast<unsigned>(datagram.size()));
        if (++held == kPause) {
            state.PauseTiming();
            QXV_RTP_Receive(handle, 0, space.data(), held * kBlock);
            held = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
    QXV_RTP_ReceiveEnd(handle, 0);
    QXV_RTP_Destroy(handle);
}
BENCHMARK(RxProcessDatagram);

}  // namespace

BENCHMARK_MAIN();

// What it costs to watch a stream: a datagram of the sample through the monitor, beside the
// analyzer alone and a copy of the same bytes.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "StreamMonitor.h"

namespace {

constexpr size_t kDatagram = size_t{7} * 188;
constexpr auto kInterval = std::chrono::microseconds(1316);  // 8 Mbit/s

// Hands out the sample's datagrams again and again.
class Sample {
  public:
    std::span<const uint8_t> next() {
        at_ = at_ + 2 * kDatagram > bytes_.size() ? 0 : at_ + kDatagram;
        now_ += kInterval;
        return {reinterpret_cast<const uint8_t*>(bytes_.data()) + at_, kDatagram};
    }
    ts::Time now() const { return now_; }

  private:
    std::string bytes_ = [] {
        std::ifstream file(SAMPLE_PATH, std::ios::binary);
        return std::string{std::istreambuf_iterator<char>(file), {}};
    }();
    size_t at_ = 0;
    ts::Time now_{0};
};

void Copy(benchmark::State& state) {
    Sample sample;
    std::array<uint8_t, kDatagram> copy;
    for ([[maybe_unused]] auto _ : state) {
        memcpy(copy.data(), sample.next().data(), copy.size());
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(Copy);

void Analyze(benchmark::State& state) {
    Sample sample;
    StreamAnalyzer analyzer;
    for ([[maybe_unused]] auto _ : state)
        analyzer.feed(sample.next(), sample.now());
}
BENCHMARK(Analyze);

void Monitor(benchmark::State& state) {
    Sample sample;
    ts::StreamMonitor monitor({});
    for ([[maybe_unused]] auto _ : state) {
        const auto payload = sample.next();
        monitor.add({payload, sample.now(), {}, 64, 0});
    }
    state.counters["per packet"] =
        benchmark::Counter(7.0 * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(Monitor);

}  // namespace

BENCHMARK_MAIN();

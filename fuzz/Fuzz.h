// What the fuzz targets have in common. A target is compiled with libFuzzer's main, or with Replay.cpp,
// which runs it once for each file of its corpus.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Also in builds without assertions.
#define FUZZ_CHECK(condition)                                                    \
    do {                                                                         \
        if (!(condition)) {                                                      \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                        \
        }                                                                        \
    } while (false)

// Reads an input from its beginning; behind its end there are zeros.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : m_Rest(data, size) {}

    bool Empty() const { return m_Rest.empty(); }
    std::span<const uint8_t> Bytes(size_t count) {
        const auto bytes = m_Rest.first(std::min(count, m_Rest.size()));
        m_Rest = m_Rest.subspan(bytes.size());
        return bytes;
    }
    uint8_t Byte() {
        const auto byte = Bytes(1);
        return byte.empty() ? uint8_t{0} : byte[0];
    }
    uint32_t Word() {
        const uint32_t high = Byte();
        return high << 8 | Byte();
    }

  private:
    std::span<const uint8_t> m_Rest;
};

#endif

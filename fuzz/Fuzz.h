// What the fuzz targets have in common. A target is compiled with libFuzzer's main, or with
// Replay.cpp, which runs it once for each file of its corpus.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Also in builds without assertions; the stack tells which it was.
inline void Check(bool condition) {
    if (!condition)
        std::abort();
}

// Reads an input from its beginning; behind its end there are zeros.
struct Input {
    std::span<const uint8_t> Rest;

    std::span<const uint8_t> Bytes(size_t count) {
        const auto bytes = Rest.first(std::min(count, Rest.size()));
        Rest = Rest.subspan(bytes.size());
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
};

#endif

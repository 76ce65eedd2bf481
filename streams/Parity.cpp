#include "Parity.h"

#include <array>
#include <cstddef>

#include "TransportStream.h"

namespace ts {

namespace {

constexpr size_t kParityBytes = kPacketWithParityBytes - kPacketBytes;
using Parity = std::array<uint8_t, kParityBytes>;

// In the field of 256 elements whose polynomial is x^8 + x^4 + x^3 + x^2 + 1.
constexpr uint8_t multiply(uint8_t a, uint8_t b) {
    unsigned int product = 0;
    for (int bit = 7; bit >= 0; --bit) {
        product = product << 1 ^ (product & 0x80 ? 0x11Du : 0u);
        product ^= (b >> bit & 1) != 0 ? a : 0u;
    }
    return static_cast<uint8_t>(product);
}

// The product of x + 2^i for i from 0 to 15; without the first coefficient, which is 1.
constexpr Parity makeGenerator() {
    std::array<uint8_t, kParityBytes + 1> product{1};
    uint8_t root = 1;
    for (size_t degree = 0; degree < kParityBytes; ++degree, root = multiply(root, 2)) {
        for (size_t i = degree + 1; i > 0; --i)
            product[i] = static_cast<uint8_t>(product[i] ^ multiply(product[i - 1], root));
    }
    Parity result{};
    for (size_t i = 0; i < kParityBytes; ++i)
        result[i] = product[i + 1];
    return result;
}

// All multiples of the generator.
std::array<Parity, 256> makeMultiples() {
    constexpr Parity kGenerator = makeGenerator();
    std::array<Parity, 256> multiples{};
    for (size_t factor = 0; factor < multiples.size(); ++factor) {
        for (size_t i = 0; i < kParityBytes; ++i)
            multiples[factor][i] = multiply(kGenerator[i], static_cast<uint8_t>(factor));
    }
    return multiples;
}

}  // namespace

void writeParity(uint8_t* packet) {
    static const auto kMultiples = makeMultiples();
    std::array<uint8_t, kParityBytes + 1> rest{};
    for (size_t i = 0; i < kPacketBytes; ++i) {
        const Parity& multiple = kMultiples[packet[i] ^ rest[0]];
        for (size_t j = 0; j < kParityBytes; ++j)
            rest[j] = static_cast<uint8_t>(rest[j + 1] ^ multiple[j]);
    }
    for (size_t i = 0; i < kParityBytes; ++i)
        packet[kPacketBytes + i] = rest[i];
}

}  // namespace ts

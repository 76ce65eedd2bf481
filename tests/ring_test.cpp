// The byte ring.
#include "ZAQSimpleBuffer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Every offset at which a transfer can begin, and every length up to one more than the ring holds.
TEST(Ring, TransfersAgreeWithASimpleQueue) {
    for (const uint32_t size : {1u, 2u, 3u, 10u, 17u}) {
        CZAQSimpleBuffer ring(4 * size);
        ASSERT_EQ(ring.Write(Bytes(1).data(), 1) + ring.Initialize(size), 2);
        std::deque<unsigned char> held;
        size_t sampled = 0, written = 0;
        std::mt19937 random(size);
        for (int step = 0; step < 20000; ++step) {
            const uint32_t operation = random() % 8, count = random() % (size + 2);
            Bytes bytes(count + 1, 0xEE);  // one more, which no transfer may touch
            if (random() % 256 == 0) {
                ASSERT_EQ(random() % 2 ? ring.Reset() : ring.Initialize(size), 1);
                sampled = written = 0, held.clear();
            } else if (operation == 0) {
                ASSERT_EQ(ring.ResetSample(), ring.ReadPos);
                sampled = 0;
            } else if (operation < 4) {
                std::generate_n(bytes.begin(), count, std::ref(random));
                const uint32_t stored = held.size() + count < size ? count : 0;
                ASSERT_EQ(ring.Write(bytes.data(), count), stored == count);
                held.insert(held.end(), bytes.begin(), bytes.begin() + stored);
                written += stored;
            } else {
                const auto transfer =
                    operation < 6 ? &CZAQSimpleBuffer::Sample : &CZAQSimpleBuffer::Read;
                size_t from = operation < 6 ? sampled : 0;
                const bool enough = held.size() - from >= count;
                ASSERT_EQ((ring.*transfer)(bytes.data(), count), enough);
                for (uint32_t i = 0; enough && i < count; ++i)
                    ASSERT_EQ(bytes[i], held[from++]);
                ASSERT_EQ(bytes.back(), 0xEE);
                if (operation < 6)
                    sampled = from;
                else if (from != 0)
                    sampled = 0, held.erase(held.begin(), held.begin() + count);
            }
            ASSERT_TRUE(
                ring.GetDataSize() == held.size() && ring.GetFreeSize() == size - 1 - held.size() &&
                ring.GetSampleSize() == held.size() - sampled && ring.GetTotalSize() == written);
            for (const auto* position : {&ring.ReadPos, &ring.WritePos, &ring.SamplePos})
                ASSERT_TRUE(*position >= ring.Data && *position < ring.DataEnd);
        }
    }
}

TEST(Ring, WithoutStorageNothingIsHeldOrTaken) {
    CZAQSimpleBuffer never, empty(0), cleaned(10);
    unsigned char byte = 0;
    ASSERT_EQ(cleaned.Write(&byte, 1) + cleaned.Cleanup(), 2);
    for (CZAQSimpleBuffer* ring : {&never, &empty, &cleaned}) {
        EXPECT_EQ(ring->GetDataSize() + ring->GetSampleSize() + ring->GetTotalSize() +
                      ring->GetBufferSize() + ring->GetFreeSize(),
                  0u);
        EXPECT_EQ(ring->Write(&byte, 1) + ring->Read(&byte, 1) + ring->Sample(&byte, 1), 0);
        EXPECT_EQ(ring->Initialize(10), 1);
        ring->TotalWritten = 0xFFFFFFFF;
        EXPECT_EQ(ring->Write(&byte, 1) + ring->GetTotalSize(), 0x100000001u);
        EXPECT_EQ(ring->Reset() + ring->GetTotalSize() + ring->GetSampleSize(), 1u);
    }
}

// A stream that stops short is a hang, for which whoever runs this has a deadline.
TEST(Ring, AStreamPassesBetweenTwoThreadsInOrder) {
    constexpr uint32_t kStream = 1 << 20;
    CZAQSimpleBuffer ring(251);
    // Both threads meet in the ring while they spin. One that spins for longer waits for the other
    // to get a processor, which on a busy machine it does sooner when this one sleeps.
    const auto await = [](const auto& call) {
        for (int tries = 1; call() == 0; ++tries)
            if (tries % 256 == 0)
                usleep(20);
    };
    std::jthread writer([&] {
        for (uint32_t done = 0; done < kStream;) {
            Bytes bytes(std::min(1 + done % 250, kStream - done));
            for (unsigned char& byte : bytes)
                byte = static_cast<unsigned char>(done++ % 253);
            const auto size = static_cast<uint32_t>(bytes.size());
            await([&] { return ring.Write(bytes.data(), size); });
        }
    });
    uint32_t wrong = 0;
    for (uint32_t done = 0; done < kStream; ++done) {
        unsigned char byte = 0;
        await([&] { return ring.Read(&byte, 1); });
        wrong += byte != done % 253;
    }
    EXPECT_EQ(wrong, 0u);
}

}  // namespace

#include "ZAQSimpleBuffer.h"

#include <algorithm>
#include <cstring>

namespace {

// Bytes from `from` on to `to` in a ring of `length` bytes.
uint32_t Distance(const unsigned char* from, const unsigned char* to, uint32_t length) {
    const auto difference = static_cast<uint32_t>(to - from);
    return to < from ? difference + length : difference;
}

// Calls copy(at, done, bytes) for `count` bytes of the ring from `position` on, in one piece or,
// where they go round the end, in two. Returns the position behind them.
template <typename Copy>
unsigned char* Move(const CZAQSimpleBuffer& ring, unsigned char* position, uint32_t count,
                    Copy copy) {
    const auto tail = static_cast<uint32_t>(ring.DataEnd - position);
    copy(position, 0, std::min(count, tail));
    if (count < tail)
        return position + count;
    if (count > tail)
        copy(ring.Data, tail, count - tail);
    return ring.Data + (count - tail);
}

auto To(unsigned char* destination) {
    return [destination](const unsigned char* at, uint32_t done, uint32_t bytes) {
        memcpy(destination + done, at, bytes);
    };
}

}  // namespace

CZAQSimpleBuffer::CZAQSimpleBuffer() noexcept
    : Data(nullptr),
      DataEnd(nullptr),
      Length(0),
      ReadPos(nullptr),
      WritePos(nullptr),
      SamplePos(nullptr),
      TotalWritten(0) {}

CZAQSimpleBuffer::CZAQSimpleBuffer(unsigned int size) : CZAQSimpleBuffer() {
    CZAQSimpleBuffer::Initialize(size);
}

CZAQSimpleBuffer::~CZAQSimpleBuffer() {
    delete[] Data;
    Data = nullptr;
}

uint64_t CZAQSimpleBuffer::GetTotalSize() {
    // A statistic: nothing is read on the strength of it, so no order is needed.
    return TotalWritten.load(std::memory_order_relaxed);
}

uint32_t CZAQSimpleBuffer::GetBufferSize() {
    return Length;
}

unsigned char* CZAQSimpleBuffer::ResetSample() {
    // Both positions are the reader's own: no other thread stores them.
    unsigned char* const position = ReadPos.load(std::memory_order_relaxed);
    SamplePos.store(position, std::memory_order_relaxed);
    return position;
}

int CZAQSimpleBuffer::Initialize(unsigned int size) {
    // Cleared before the allocation, which may throw: the object is then empty, not dangling.
    CZAQSimpleBuffer::Cleanup();
    Data = new unsigned char[size];
    DataEnd = Data + size;
    Length = size;
    Reset();
    return 1;
}

int CZAQSimpleBuffer::Cleanup() {
    delete[] Data;
    Data = DataEnd = nullptr;
    Length = 0;
    CZAQSimpleBuffer::Reset();
    return 1;
}

int CZAQSimpleBuffer::Reset() {
    // Both sides are quiet here, and whoever starts them again orders these stores before their
    // use.
    ReadPos.store(Data, std::memory_order_relaxed);
    WritePos.store(Data, std::memory_order_relaxed);
    SamplePos.store(Data, std::memory_order_relaxed);
    TotalWritten.store(0, std::memory_order_relaxed);
    return 1;
}

uint32_t CZAQSimpleBuffer::GetDataSize() {
    if (Data == nullptr)
        return 0;
    // Each side loads the other's position with acquire, pairing with the release store in Write or
    // Read: what lies between the positions has been filled, or has been copied out, by then. For a
    // side's own position the acquire is not needed and costs nothing.
    const unsigned char* const read = ReadPos.load(std::memory_order_acquire);
    const unsigned char* const write = WritePos.load(std::memory_order_acquire);
    return Distance(read, write, Length);
}

uint32_t CZAQSimpleBuffer::GetFreeSize() {
    // A ring without storage, or with storage of zero bytes, has no room; the subtraction below
    // would promise 2^32 - 1 bytes of it.
    if (Data == nullptr || Length == 0)
        return 0;
    return Length - 1 - GetDataSize();
}

uint32_t CZAQSimpleBuffer::GetSampleSize() {
    if (Data == nullptr)
        return 0;
    const unsigned char* const sample = SamplePos.load(std::memory_order_relaxed);  // reader's own
    const unsigned char* const write = WritePos.load(std::memory_order_acquire);    // as above
    return Distance(sample, write, Length);
}

int CZAQSimpleBuffer::Write(unsigned char* source, unsigned int count) {
    if (Data == nullptr || GetFreeSize() < count)
        return 0;
    if (count == 0)
        return 1;
    unsigned char* const position =
        Move(*this, WritePos.load(std::memory_order_relaxed), count,  // the writer's own
             [source](unsigned char* at, uint32_t done, uint32_t bytes) {
                 memcpy(at, source + done, bytes);
             });
    // Release: the bytes are in place before the reader's acquire of the position can see it.
    WritePos.store(position, std::memory_order_release);
    // Only the writer adds, so a plain read-modify-write loses nothing.
    TotalWritten.store(TotalWritten.load(std::memory_order_relaxed) + count,
                       std::memory_order_relaxed);
    return 1;
}

int CZAQSimpleBuffer::Read(unsigned char* destination, unsigned int count) {
    if (Data == nullptr || GetDataSize() < count)
        return 0;
    if (count == 0)
        return 1;
    unsigned char* const position =
        Move(*this, ReadPos.load(std::memory_order_relaxed), count, To(destination));
    // Release: the bytes are copied out before the writer's acquire can see their room as free.
    ReadPos.store(position, std::memory_order_release);
    SamplePos.store(position, std::memory_order_relaxed);  // the reader's own
    return 1;
}

int CZAQSimpleBuffer::Sample(unsigned char* destination, unsigned int count) {
    if (Data == nullptr || GetSampleSize() < count)
        return 0;
    if (count == 0)
        return 1;
    SamplePos.store(Move(*this, SamplePos.load(std::memory_order_relaxed), count, To(destination)),
                    std::memory_order_relaxed);  // the reader's own
    return 1;
}

#include "ZAQSimpleBuffer.h"

#include <algorithm>
#include <cstring>

namespace {

// Bytes from `from` on to `to` in a ring of `length` bytes.
uint32_t Distance(const unsigned char* from, const unsigned char* to, uint32_t length) {
    const auto difference = static_cast<uint32_t>(to - from);
    return to < from ? difference + length : difference;
}

// The position behind `count` bytes from `position` on.
unsigned char* Behind(const CZAQSimpleBuffer& ring, unsigned char* position, uint32_t count) {
    const auto tail = static_cast<uint32_t>(ring.DataEnd - position);
    return count < tail ? position + count : ring.Data + (count - tail);
}

// Copies in one piece or, where the bytes go round the end, in two.
void CopyOut(const CZAQSimpleBuffer& ring, const unsigned char* position,
             unsigned char* destination, uint32_t count) {
    const auto tail = static_cast<uint32_t>(ring.DataEnd - position);
    memcpy(destination, position, std::min(count, tail));
    if (count > tail)
        memcpy(destination + tail, ring.Data, count - tail);
}

}  // namespace

CZAQSimpleBuffer::CZAQSimpleBuffer() noexcept = default;

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
    return CZAQSimpleBuffer::Reset();
}

int CZAQSimpleBuffer::Reset() {
    // Both sides are quiet here, and whoever starts them again orders these stores before that.
    ReadPos.store(Data, std::memory_order_relaxed);
    WritePos.store(Data, std::memory_order_relaxed);
    SamplePos.store(Data, std::memory_order_relaxed);
    TotalWritten.store(0, std::memory_order_relaxed);
    return 1;
}

uint32_t CZAQSimpleBuffer::GetDataSize() {
    // Each side loads the other's position with acquire, pairing with the release store in Write or
    // Read: what lies between the positions has been filled, or has been copied out, by then. For a
    // side's own position the acquire is not needed and costs nothing.
    const unsigned char* const read = ReadPos.load(std::memory_order_acquire);
    const unsigned char* const write = WritePos.load(std::memory_order_acquire);
    return Distance(read, write, Length);
}

uint32_t CZAQSimpleBuffer::GetFreeSize() {
    // A ring without storage has no room; the subtraction would promise 2^32 - 1 bytes of it.
    return Length != 0 ? Length - 1 - GetDataSize() : 0;
}

uint32_t CZAQSimpleBuffer::GetSampleSize() {
    const unsigned char* const sample = SamplePos.load(std::memory_order_relaxed);  // reader's own
    const unsigned char* const write = WritePos.load(std::memory_order_acquire);    // as above
    return Distance(sample, write, Length);
}

int CZAQSimpleBuffer::Write(unsigned char* source, unsigned int count) {
    if (Data == nullptr || GetFreeSize() < count)
        return 0;
    if (count == 0)
        return 1;
    unsigned char* const position = WritePos.load(std::memory_order_relaxed);  // the writer's own
    const auto tail = static_cast<uint32_t>(DataEnd - position);
    memcpy(position, source, std::min(count, tail));
    if (count > tail)
        memcpy(Data, source + tail, count - tail);
    // Release: the bytes are in place before the reader's acquire of the position can see it.
    WritePos.store(Behind(*this, position, count), std::memory_order_release);
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
    unsigned char* const position = ReadPos.load(std::memory_order_relaxed);  // the reader's own
    CopyOut(*this, position, destination, count);
    // Release: the bytes are copied out before the writer's acquire can see their room as free.
    ReadPos.store(Behind(*this, position, count), std::memory_order_release);
    ResetSample();
    return 1;
}

int CZAQSimpleBuffer::Sample(unsigned char* destination, unsigned int count) {
    if (Data == nullptr || GetSampleSize() < count)
        return 0;
    if (count == 0)
        return 1;
    unsigned char* const position = SamplePos.load(std::memory_order_relaxed);  // the reader's own
    CopyOut(*this, position, destination, count);
    SamplePos.store(Behind(*this, position, count), std::memory_order_relaxed);
    return 1;
}

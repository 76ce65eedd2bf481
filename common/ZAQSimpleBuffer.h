// Byte ring between one writing and one reading thread, without a lock.
#ifndef COMMON_ZAQSIMPLEBUFFER_H
#define COMMON_ZAQSIMPLEBUFFER_H

#include <atomic>
#include <cstdint>

#include "Export.h"

// A ring of `Length` bytes that holds at most `Length` - 1: one byte stays free, so that equal
// positions always mean "empty". Transfers are all or nothing. Besides the consuming read position
// there is a sample position, with which the reader looks ahead without removing anything.
//
//     Data          ReadPos      SamplePos       WritePos           DataEnd
//      |  (free)       |  sampled   |  not sampled   |    (free)       |
//
// Thread safety: one thread calls Write, one thread calls Read, Sample and ResetSample; the size
// queries may be called from either. Initialize, Reset, Cleanup and destruction need both sides
// quiet. Sizes are in bytes. Transfers return 1 when done, and 0, with nothing changed, when the
// ring holds too little or has too little room.
class ZAQ_EXPORT CZAQSimpleBuffer {
  public:
    CZAQSimpleBuffer() noexcept;
    // Allocates `size` bytes; an allocation failure propagates as std::bad_alloc.
    explicit CZAQSimpleBuffer(unsigned int size);
    CZAQSimpleBuffer(const CZAQSimpleBuffer&) = delete;
    CZAQSimpleBuffer& operator=(const CZAQSimpleBuffer&) = delete;

    // The order of the virtual functions is part of the binary interface.
    virtual ~CZAQSimpleBuffer();
    virtual uint64_t GetTotalSize();   // bytes accepted by Write since the last Reset
    virtual uint32_t GetBufferSize();  // Length
    virtual unsigned char* ResetSample();
    virtual int Initialize(unsigned int size);  // re-sizes and empties; always 1
    virtual int Cleanup();                      // frees the storage; always 1
    virtual int Reset();                        // empties; always 1
    virtual uint32_t GetDataSize();
    virtual uint32_t GetFreeSize();
    virtual uint32_t GetSampleSize();  // bytes held and not yet sampled
    virtual int Write(unsigned char* source, unsigned int count);
    virtual int Read(unsigned char* destination, unsigned int count);
    virtual int Sample(unsigned char* destination, unsigned int count);

    // The fields stand in the order of the binary interface. What one side writes is kept off the
    // other side's cache lines, by two lines each, as processors fetch lines in pairs.

    // Fixed while either side transfers.
    unsigned char* Data = nullptr;
    unsigned char* DataEnd = nullptr;
    uint32_t Length = 0;

    // Written by the reader (ReadPos, SamplePos) and by the writer (WritePos, TotalWritten).
    alignas(128) std::atomic<unsigned char*> ReadPos{nullptr};
    alignas(128) std::atomic<unsigned char*> WritePos{nullptr};
    alignas(128) std::atomic<unsigned char*> SamplePos{nullptr};
    alignas(128) std::atomic<uint64_t> TotalWritten{0};
};

#endif

// Millisecond clock of the stream timer.
#ifndef COMMON_ZAQTICKVALUE_H
#define COMMON_ZAQTICKVALUE_H

#include <cstdint>

#include "Export.h"

// The wall clock in milliseconds, cut to 32 bits (it wraps every 49.7 days) and extended to 64 bits
// by counting the wraps. Where that clock steps back by less than 2^31 ms, the tick does so, too.
//
// Thread safety: none; each object has one user at a time (the stream timer locks its own).
class ZAQ_EXPORT CZAQTickValue {
  public:
    CZAQTickValue() noexcept : LastValue(0) {}

    // The order of the virtual functions is part of the binary interface.
    virtual ~CZAQTickValue();
    virtual uint64_t GetTickValue();  // milliseconds

    uint64_t LastValue;  // what GetTickValue returned last; 0 at first
};

#endif

// The numbers of the formats that the module carries, each in one place.
#ifndef COMMON_STREAMFORMAT_H
#define COMMON_STREAMFORMAT_H

#include <cstdint>

inline constexpr unsigned char kSyncByte = 0x47;     // ISO/IEC 13818-1, 2.4.3.2
inline constexpr uint32_t kRtpVersion = 2;           // RFC 3550, 5.1
inline constexpr uint32_t kRtpHeaderSize = 12;       // without a CSRC list
inline constexpr uint32_t kRtpPayloadTypeMp2t = 33;  // RFC 3551, 6: MPEG-2 transport stream

#endif

// Texts of DVB service information.
#ifndef STREAMS_DVBTEXT_H
#define STREAMS_DVBTEXT_H

#include <cstdint>
#include <span>
#include <string>

// A text in UTF-8, without control characters (EN 300 468, annex A): ISO/IEC 6937 unless its first
// bytes select another table. What cannot be read becomes U+FFFD.
std::string dvbText(std::span<const uint8_t> text);

#endif

#include "DvbText.h"

#include <bitstream/dvb/si/strings.h>
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "Invisible.h"

namespace {

constexpr char32_t kUnreadable = 0xFFFD;
constexpr uint8_t kEuro = 0xA4;  // DVB's one change to ISO/IEC 6937, which has another sign there

class Converter {
  public:
    explicit Converter(const char* encoding) : descriptor_(iconv_open("UTF-32LE", encoding)) {}
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    ~Converter() {
        if (isOpen())
            iconv_close(descriptor_);
    }

    // False where this machine does not know the encoding.
    bool isOpen() const { return reinterpret_cast<intptr_t>(descriptor_) != -1; }

    std::u32string convert(std::span<const uint8_t> text, size_t unit) const {
        std::u32string result;
        auto* in = const_cast<char*>(reinterpret_cast<const char*>(text.data()));
        size_t left = text.size();
        while (left > 0) {
            char32_t buffer[64];
            auto* out = reinterpret_cast<char*>(buffer);
            size_t room = sizeof(buffer);
            const size_t done = iconv(descriptor_, &in, &left, &out, &room);
            const int error = errno;
            result.append(buffer, (sizeof(buffer) - room) / sizeof(char32_t));
            if (done != static_cast<size_t>(-1) || error == E2BIG)
                continue;
            result += kUnreadable;
            const size_t skip = error == EILSEQ ? std::min(unit, left) : left;
            in += skip;
            left -= skip;
        }
        iconv(descriptor_, nullptr, nullptr, nullptr, nullptr);
        return result;
    }

  private:
    iconv_t descriptor_;
};

// To open one takes far longer than to use it, and a stream decides how often it is needed. There
// are about twenty encodings, so all that were used stay open.
const Converter& converterFor(const char* encoding) {
    thread_local std::map<std::string, Converter, std::less<>> converters;
    return converters.try_emplace(encoding, encoding).first->second;
}

std::u32string decode(std::span<const uint8_t> text) {
    const uint8_t* begin = text.data();
    size_t length = text.size();
    const char* encoding = dvb_string_get_encoding(&begin, &length, "ISO6937");
    // A selection that says nothing to us: ASCII is what most tables have in common.
    if (encoding == nullptr || *encoding == '\0')
        encoding = "US-ASCII";
    const Converter& converter = converterFor(encoding);
    std::span<const uint8_t> rest(begin, length);
    if (!converter.isOpen())
        return std::u32string(rest.empty() ? 0 : 1, kUnreadable);
    if (std::strcmp(encoding, "ISO6937") != 0)
        return converter.convert(rest, std::strcmp(encoding, "UCS-2BE") == 0 ? 2 : 1);
    std::u32string result;
    for (size_t i = 0; i < rest.size();) {
        if (rest[i] == kEuro) {
            result += U'\u20AC';
            rest = rest.subspan(i + 1);
            i = 0;
        } else if (++i == rest.size() || rest[i] == kEuro) {
            result += converter.convert(rest.first(i), 1);
            rest = rest.subspan(i);
            i = 0;
        }
    }
    return result;
}

void appendUtf8(std::string& text, char32_t c) {
    const auto put = [&text](char32_t byte) { text += static_cast<char>(byte); };
    if (c < 0x80) {
        put(c);
        return;
    }
    const int following = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    put((following == 1 ? 0xC0u : following == 2 ? 0xE0u : 0xF0u) | c >> (6 * following));
    for (int i = following - 1; i >= 0; --i)
        put(0x80u | (c >> (6 * i) & 0x3F));
}

}  // namespace

std::string dvbText(std::span<const uint8_t> text) {
    std::string result;
    for (const char32_t c : decode(text)) {
        if (c == 0x8A || c == 0xE08A)  // a new line
            result += ' ';
        else if (!isInvisible(c))
            appendUtf8(result, c);
    }
    return result;
}

// Any text as a session description. What is accepted is a URL to receive from, and the description
// of that URL leads to the same place.
#include <string>

#include "Fuzz.h"
#include "media/Sdp.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text;
    try {
        text = urlOfSdp({reinterpret_cast<const char*>(data), size}, "f");
    } catch (const UsageError& error) {
        Check(std::string_view(error.what()).starts_with("'f': "));
        return 0;
    }
    const StreamUrl url = parseStreamUrl(text);
    checkSource(url);
    const std::string own = writeSdp(url, "name", "192.0.2.7");
    Check(sessionOf(url, "name") == sessionOf(parseStreamUrl(text), "name"));
    if (url.host.find('%') != std::string::npos)
        return 0;
    const StreamUrl again = parseStreamUrl(urlOfSdp(own, "g"));
    Check(again.host == url.host && again.port == url.port && again.rtp);
    Check(sapGroup(url).empty() != url.multicast);
    Check(sapPacket(own, 1, "192.0.2.7", false).size() == own.size() + 8 + 16);
    return 0;
}

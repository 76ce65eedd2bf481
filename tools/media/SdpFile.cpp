#include "media/SdpFile.h"

#include <string_view>

#include "base/Errors.h"
#include "base/RegularFile.h"
#include "media/Sdp.h"

std::string streamOf(const std::string& input) {
    constexpr std::string_view kScheme = "file://";
    const bool isUrl = input.starts_with(kScheme);
    if (!isUrl && (!input.ends_with(".sdp") || input.find("://") != std::string::npos))
        return input;
    const std::string path = isUrl ? input.substr(kScheme.size()) : input;
    std::string text;
    try {
        text = readRegularFile(path, kLongestSdp + 1);
    } catch (const Failure& failure) {
        throw UsageError(failure.what());
    }
    return urlOfSdp(text, path);
}

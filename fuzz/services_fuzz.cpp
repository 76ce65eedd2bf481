// Any text as a configuration file. What is accepted comes to the same when its full form is read;
// what is not, has a complaint with file and line.
#include "Fuzz.h"
#include "config/ConfigFile.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ServiceConfig config;
    try {
        config = parseConfig({reinterpret_cast<const char*>(data), size}, "f");
    } catch (const ConfigErrors& errors) {
        Check(std::string_view(errors.what()).starts_with("f:"));
        return 0;
    }
    Check(!config.send.empty() || !config.receive.empty() || !config.relay.empty());
    const std::string full = formatConfig(config, false);
    Check(formatConfig(parseConfig(full, "g"), false) == full);
    Check(formatConfig(config, true).starts_with('{'));
    return 0;
}

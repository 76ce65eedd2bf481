// qxvrtp: sends, receives and demonstrates transport streams over UDP and RTP.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>

#include "DemoCommand.h"
#include "Errors.h"
#include "Quantity.h"
#include "ReceiveCommand.h"
#include "SendCommand.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kMisused = 2;

constexpr auto kUrlHelp =
    "URLs: udp://HOST:PORT (raw) or rtp://HOST:PORT, with an '@' in front of HOST or not.\n"
    "HOST is numeric: IPv4, or IPv6 in brackets, with %zone where one is needed.\n"
    "Options: ?ttl=0..255 (of groups, default 16) and localaddr=ADDRESS (interface to use).\n"
    "Exit code: 0 done, 1 failed, 2 wrong usage.";

uint64_t quantity(const std::string& option, const std::string& text, uint64_t smallest,
                  uint64_t largest) {
    const auto value = parseQuantity(text);
    if (!value || *value < smallest || *value > largest)
        throw UsageError(
            fmt::format("{} '{}': a number from {} to {} is accepted, also with k, M "
                        "or G for thousands, millions or thousand millions",
                        option, text, smallest, largest));
    return *value;
}

void addSend(CLI::App& app) {
    struct Text {
        SendOptions options;
        std::string bitrate;
    };
    auto* const command = app.add_subcommand("send", "Send a transport stream");
    const auto text = std::make_shared<Text>();
    command->add_option("FILE", text->options.file, "Stream to send; - is standard input")
        ->required();
    command->add_option("URL", text->options.url, "Where to send it")->required();
    command->add_option("-b,--bitrate", text->bitrate,
                        "Bits per second, like 2500000, 2500k or 2.5M; without it, the rate of the "
                        "stream's PCRs");
    command->add_flag("-l,--loop", text->options.loop, "Repeat the file until a signal comes");
    command->footer(std::string("Packets of 188 or 204 bytes; the rate counts all their bytes.\n"
                                "Done (0) when all has left; with --loop, when SIGINT or SIGTERM "
                                "comes.\n") +
                    kUrlHelp);
    command->callback([text] {
        if (!text->bitrate.empty())
            text->options.bitrate_bps =
                static_cast<uint32_t>(quantity("--bitrate", text->bitrate, 1, UINT32_MAX));
        runSend(text->options);
    });
}

void addReceive(CLI::App& app) {
    struct Text {
        ReceiveOptions options;
        std::string bytes;
        double seconds = 0.0;
    };
    auto* const command = app.add_subcommand("receive", "Record a transport stream");
    const auto text = std::make_shared<Text>();
    command
        ->add_option("URL", text->options.url,
                     "Group to join, or local address to listen on (udp://@:5000 = any)")
        ->required();
    command->add_option("FILE", text->options.file, "Where to record; - is standard output")
        ->required();
    auto* const duration =
        command->add_option("-d,--duration", text->seconds, "End after this many seconds")
            ->check(CLI::Range(0.001, 1e9));
    command->add_option("-n,--bytes", text->bytes,
                        "End after exactly this many bytes (also k, M, G)");
    command->footer(
        std::string("Raw and RTP streams are told apart by themselves, whatever the "
                    "scheme.\n"
                    "Done (0) when --bytes have come; otherwise when the time is up, or "
                    "SIGINT or SIGTERM\ncomes, and anything was received.\n") +
        kUrlHelp);
    command->callback([text, duration] {
        if (!text->bytes.empty())
            text->options.bytes = quantity("--bytes", text->bytes, 1, INT64_MAX);
        if (duration->count() > 0)
            text->options.duration =
                std::chrono::milliseconds(std::llround(text->seconds * 1000.0));
        runReceive(text->options);
    });
}

void addDemo(CLI::App& app) {
    auto* const command = app.add_subcommand(
        "demo", "Send a stream over all 16 channels on loopback, and check what arrives");
    const auto options = std::make_shared<DemoOptions>();
    command->add_option("FILE", options->file,
                        "Stream to send; without it, one that ffmpeg makes, or else a sample");
    command->add_option("-s,--seconds", options->seconds, "Length of the stream in seconds")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 3600.0));
    command->add_option("--sample", options->sample, "The sample; then ffmpeg is not asked");
    command->callback([options] { runDemo(*options); });
}

// An error is one line, whatever names and texts went into it.
void complain(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
    fmt::print(stderr, "qxvrtp: {}\n", text);
}

int run(int argc, char** argv) {
    CLI::App app("Transport streams over UDP and RTP", "qxvrtp");
    app.set_version_flag("--version", "qxvrtp " QXV_VERSION);
    app.require_subcommand(1);
    app.footer("'qxvrtp COMMAND --help' tells more.");
    addSend(app);
    addReceive(app);
    addDemo(app);
    try {
        app.parse(argc, argv);
        if (std::fflush(stdout) != 0)
            throw Failure("standard output cannot be written");
        return kDone;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return app.exit(error);  // help or version, printed
        complain(fmt::format("{}; see 'qxvrtp --help'", error.what()));
        return kMisused;
    } catch (const UsageError& error) {
        complain(error.what());
        return kMisused;
    } catch (const std::exception& error) {
        complain(error.what());
        return kFailed;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (...) {
        std::fputs("qxvrtp: failed\n", stderr);
        return kFailed;
    }
}

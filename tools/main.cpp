// qxvrtp: sends, receives and demonstrates transport streams over UDP and RTP.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "DemoCommand.h"
#include "Errors.h"
#include "Quantity.h"
#include "ReceiveCommand.h"
#include "SendCommand.h"
#include "StreamUrl.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kMisused = 2;

constexpr auto kExitCodes = "Exit code: 0 done, 1 failed, 2 wrong usage.";

std::string urlHelp() {
    return fmt::format(
        "\nURL: udp://HOST:PORT (raw) or rtp://HOST:PORT, with an '@' in front of HOST or not.\n"
        "HOST is numeric: IPv4, or IPv6 in brackets, with %zone where one is needed.\n"
        "Behind it: ?ttl=0..255 (of datagrams to groups, {} if not given) and\n"
        "localaddr=ADDRESS (of the interface to use), joined by '&'.\n{}",
        kDefaultTtl, kExitCodes);
}

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

double seconds(const std::string& option, const std::string& text, double smallest,
               double largest) {
    double value = 0.0;
    if (!CLI::detail::lexical_cast(text, value) || !(value >= smallest && value <= largest))
        throw UsageError(fmt::format("{} '{}': a number of seconds from {} to {} is accepted",
                                     option, text, smallest, largest));
    return value;
}

void addSend(CLI::App& app) {
    struct Arguments {
        SendOptions options;
        std::string bitrate;
    };
    auto* const command = app.add_subcommand("send", "Send a transport stream");
    const auto given = std::make_shared<Arguments>();
    command->add_option("FILE", given->options.file, "Stream to send; - is standard input")
        ->required()
        ->type_name("");
    command->add_option("URL", given->options.url, "Where to send it")->required()->type_name("");
    command
        ->add_option("-b,--bitrate", given->bitrate,
                     "Bits per second, like 2500000, 2500k or 2.5M; without it, the rate of the "
                     "stream's PCRs")
        ->type_name("RATE");
    command->add_flag("-l,--loop", given->options.loop, "Repeat the file until a signal comes");
    command->footer(fmt::format(
        "Packets have 188 or 204 bytes; the rate counts all of them. The last datagram is filled\n"
        "up with null packets. Done (0) when all has left, or with --loop when SIGINT or SIGTERM\n"
        "comes.\n{}",
        urlHelp()));
    command->callback([given] {
        if (!given->bitrate.empty())
            given->options.bitrate_bps =
                static_cast<uint32_t>(quantity("--bitrate", given->bitrate, 1, UINT32_MAX));
        runSend(given->options);
    });
}

void addReceive(CLI::App& app) {
    struct Arguments {
        ReceiveOptions options;
        std::string bytes;
        std::string duration;
    };
    auto* const command = app.add_subcommand("receive", "Record a transport stream");
    const auto given = std::make_shared<Arguments>();
    command
        ->add_option("URL", given->options.url,
                     "Group to join, or local address to listen on (udp://@:5000 = any)")
        ->required()
        ->type_name("");
    command->add_option("FILE", given->options.file, "Where to record; - is standard output")
        ->required()
        ->type_name("");
    command
        ->add_option("-d,--duration", given->duration,
                     "End this many seconds after the socket was opened")
        ->type_name("SECONDS");
    command
        ->add_option("-n,--bytes", given->bytes,
                     "End after exactly this many bytes (also with k, M, G)")
        ->type_name("NUMBER");
    command->footer(fmt::format(
        "Raw and RTP streams are told apart by themselves, whatever the scheme.\n"
        "Done (0) when --bytes have come; without it when the time is up, or SIGINT or SIGTERM\n"
        "comes, and anything was received.\n{}",
        urlHelp()));
    command->callback([given] {
        if (!given->bytes.empty())
            given->options.bytes = quantity("--bytes", given->bytes, 1, INT64_MAX);
        if (!given->duration.empty())
            given->options.duration = std::chrono::milliseconds(
                std::llround(seconds("--duration", given->duration, 0.001, 1e9) * 1000.0));
        runReceive(given->options);
    });
}

void addDemo(CLI::App& app) {
    struct Arguments {
        DemoOptions options;
        std::string duration;
    };
    auto* const command = app.add_subcommand(
        "demo", "Send a stream over all 16 channels on loopback, and check what arrives");
    const auto given = std::make_shared<Arguments>();
    command
        ->add_option("FILE", given->options.file,
                     "Stream to send; without it, one that ffmpeg makes, or else a sample")
        ->type_name("");
    command
        ->add_option("-s,--seconds", given->duration,
                     fmt::format("Length of the stream, {} if not given", given->options.seconds))
        ->type_name("SECONDS");
    command
        ->add_option("--sample", given->options.sample, "Sample to send; ffmpeg is not asked then")
        ->type_name("FILE");
    command->footer("Done (0) when every byte came back on every channel. " +
                    std::string(kExitCodes));
    command->callback([given] {
        if (!given->duration.empty())
            given->options.seconds = seconds("--seconds", given->duration, 0.1, 3600.0);
        runDemo(given->options);
    });
}

// An error is one line, whatever names and texts went into it.
void complain(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
    fmt::print(stderr, "qxvrtp: {}\n", text);
}

// The parser would complain of a missing command where there is a wrong one.
void checkCommand(const CLI::App& app, const std::string& first) {
    std::string names;
    for (const CLI::App* command : app.get_subcommands({})) {
        if (command->get_name() == first)
            return;
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    if (first.empty())
        throw UsageError(fmt::format("a command is missing; commands are {}", names));
    if (first.starts_with('-') && app.get_option_no_throw(first) == nullptr)
        throw UsageError(fmt::format("there is no option '{}'; see 'qxvrtp --help'", first));
    if (!first.starts_with('-'))
        throw UsageError(fmt::format("there is no command '{}'; commands are {}", first, names));
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
        checkCommand(app, argc > 1 ? argv[1] : "");
        app.parse(argc, argv);
        if (std::fflush(stdout) != 0)
            throw Failure("standard output cannot be written");
        return kDone;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return app.exit(error);  // help or version, printed
        const auto chosen = app.get_subcommands();
        complain(fmt::format("{}; see 'qxvrtp {}--help'", error.what(),
                             chosen.empty() ? "" : chosen.front()->get_name() + " "));
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
        static_cast<void>(std::fputs("qxvrtp: failed\n", stderr));
        return kFailed;
    }
}

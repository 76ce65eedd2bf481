#include "commands/ShapingOptions.h"

#include <fmt/format.h>

#include "base/Errors.h"
#include "base/Quantity.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"

void addShaping(CommandModel& command, ShapingArguments& given) {
    command
        .addOption(
            "--cbr", given.cbr, "RATE",
            "Give the stream this constant rate, or with 'auto' the lowest that its beginning "
            "needs; 'auto' is the default for rtp://")
        .exclude({"--bitrate", "--as-is"});
    command.addOption("--delay", given.delay, "SECONDS",
                      "Buffer with which a constant rate is made, up to 1; 0.5 if not given");
    command.addFlag("--as-is", given.asIs,
                    "Change no byte over rtp://, even if the rate of the stream varies");
}

void addAnnouncing(CommandModel& command, Announcing& given) {
    command.addOption("--sdp", given.folder, "DIR",
                      "While a stream is sent to an rtp:// URL, keep a file in this folder that "
                      "describes it for players (SDP): HOST_PORT.sdp");
    command.addOption("--announce", given.name, "NAME",
                      "Announce what is sent to groups by rtp:// under this name (SAP), for "
                      "players to list");
}

Shaping shaping(const ShapingArguments& given) {
    Shaping shaping;
    shaping.constant = !given.cbr.empty();
    shaping.asIs = given.asIs;
    if (shaping.constant && given.cbr != "auto") {
        if (!parseQuantity(given.cbr))
            throw UsageError(
                fmt::format("--cbr '{}': a bitrate like 5M is accepted, or 'auto'", given.cbr));
        shaping.rate_bps = bitrate("--cbr", given.cbr);
    }
    if (!given.delay.empty())
        shaping.delay = duration("--delay", given.delay, 0.0, 1.0);
    return shaping;
}

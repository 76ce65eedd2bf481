#include "commands/ShapingOptions.h"

#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"

void addShaping(CommandModel& command, ShapingArguments& given) {
    command
        .addOption(
            "--cbr", given.cbr, "RATE",
            "Give the stream this constant rate, or with 'auto' the least that its beginning "
            "allows, of a file its first 128 MiB; rtp:// has 'auto' if nothing else is given")
        .exclude({"--bitrate", "--as-is"});
    command.addOption("--delay", given.delay, "SECONDS",
                      "Buffer that evens out the rate of --cbr, up to 1; 0.5 if not given");
    command.addFlag("--as-is", given.asIs, "Change no byte of a stream that varies over rtp://");
}

Shaping shaping(const ShapingArguments& given) {
    Shaping shaping;
    shaping.constant = !given.cbr.empty();
    shaping.asIs = given.asIs;
    if (shaping.constant && given.cbr != "auto")
        shaping.rate_bps = bitrate("--cbr", given.cbr);
    if (!given.delay.empty())
        shaping.delay = duration("--delay", given.delay, 0.0, 1.0);
    return shaping;
}

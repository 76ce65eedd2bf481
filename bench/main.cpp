// qxvrtp-bench: the module beside bare loops and other programs, on this machine, in one run.
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>

#include "Contenders.h"
#include "Measure.h"
#include "ModuleSide.h"
#include "Scenarios.h"

namespace {

struct Section {
    const char* name;
    void (*run)(Report&, const Settings&);
};
constexpr Section kSections[] = {{"receive", benchReceive}, {"capacity", benchCapacity},
                                 {"send", benchSend},       {"unpaced", benchUnpaced},
                                 {"ring", benchRing},       {"idle", benchIdle},
                                 {"load", benchLoad},       {"growth", benchGrowth}};

// The ports are fixed, and gigabits per second go through them: there must be nobody else.
bool hasOwnNetwork() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    bool alone = true;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next)
        alone = alone && (entry->ifa_flags & (IFF_LOOPBACK | IFF_UP)) != IFF_UP;
    freeifaddrs(list);
    return alone;
}

void noteMissingPeers() {
    for (const char* const peer : kPeers)
        if (!isInstalled(peer))
            fmt::print("{:<12} not installed, left out\n", peer);
}

int run(int argc, char** argv) {
    const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    Settings settings;
    settings.folder = folder;
    std::string module = folder + "/../lib/libQXV_RTP.so";
    std::string json;
    std::string plots;
    std::vector<std::string> sections;
    std::vector<std::string> names;
    for (const Section& section : kSections)
        names.emplace_back(section.name);

    CLI::App app("Measures the module beside bare loops, alternately, in one run.");
    app.add_option("section", sections, "What to measure; all if none is given")
        ->check(CLI::IsMember(names));
    app.add_flag("--quick", settings.quick, "Short measurements, for a look at all sections");
    app.add_flag("--peers", settings.peers, "Also multicat, GStreamer and ffmpeg");
    auto* const rounds = app.add_option("--rounds", settings.rounds, "Rounds of all sides in turn")
                             ->check(CLI::Range(1, 9));
    auto* const seconds = app.add_option("--seconds", settings.seconds, "Of one measurement")
                              ->check(CLI::Range(0.5, 30.0));
    auto* const longSeconds =
        app.add_option("--long", settings.longSeconds, "Seconds for the long-run rate")
            ->check(CLI::Range(2.0, 120.0));
    app.add_option("--module", module, "The module's shared library")->check(CLI::ExistingFile);
    app.add_option("--json", json, "File to write all numbers to");
    app.add_option("--plot", plots, "Folder to write plots to");
    CLI11_PARSE(app, argc, argv);
    if (settings.quick) {
        settings.rounds = rounds->empty() ? 1 : settings.rounds;
        settings.seconds = seconds->empty() ? 1.0 : settings.seconds;
        settings.longSeconds = longSeconds->empty() ? 4.0 : settings.longSeconds;
    }

    if (!hasOwnNetwork()) {
        fmt::print(stderr, "qxvrtp-bench: this needs a network of its own; run scripts/bench.sh\n");
        return 1;
    }
    setModulePath(module);
    Report report;
    if (!json.empty())
        report.writeJson(json);  // finds out now, and not in the end, whether it can be
    if (settings.peers)
        noteMissingPeers();
    for (const Section& section : kSections)
        if (sections.empty() || std::count(sections.begin(), sections.end(), section.name) > 0)
            section.run(report, settings);
    report.printGoals();
    if (!json.empty())
        report.writeJson(json);
    if (!plots.empty())
        report.drawPlots(plots);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        setlinebuf(stdout);
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "qxvrtp-bench: " << error.what() << '\n';
        return 1;
    }
}

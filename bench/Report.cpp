#include "Report.h"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Measure.h"

namespace {

std::string firstLine(const std::string& file, const std::string& start = "") {
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        if (line.starts_with(start))
            return line;
    return "not readable";
}

std::string format(double value) {
    const double size = std::abs(value);
    const int decimals = size >= 1000 || value == std::floor(value) ? 0 : size >= 10 ? 1 : 3;
    return fmt::format("{:.{}f}", value, decimals);
}

Values mergeRounds(const std::vector<Values>& rounds) {
    Values merged = rounds.front();
    for (Value& value : merged) {
        std::vector<double> all;
        all.reserve(rounds.size());
        for (const Values& round : rounds)
            all.push_back(valueOf(round, value.name));
        value.value = value.merge == Merge::Median ? percentile(all, 50)
                                                   : *std::max_element(all.begin(), all.end());
    }
    return merged;
}

const Value* find(const Values& values, const std::string& name) {
    const auto found = std::find_if(values.begin(), values.end(),
                                    [&](const Value& value) { return value.name == name; });
    return found != values.end() ? &*found : nullptr;
}

}  // namespace

double valueOf(const Values& values, const std::string& name) {
    const Value* const value = find(values, name);
    return value != nullptr ? value->value : 0.0;
}

Rows alternate(const std::vector<Side>& sides, int rounds) {
    std::vector<std::vector<Values>> results(sides.size());
    for (int round = 0; round < rounds; ++round)
        for (size_t i = 0; i < sides.size(); ++i)
            try {
                results[i].push_back(sides[i].run());
            } catch (const Failure& failure) {
                fmt::print("{}, round {}: {}\n", sides[i].name, round + 1, failure.what());
            }
    Rows rows;
    for (size_t i = 0; i < sides.size(); ++i)
        if (!results[i].empty())
            rows.push_back({sides[i].name, mergeRounds(results[i])});
    return rows;
}

std::optional<double> valueOf(const Rows& rows, const std::string& side, const std::string& name) {
    for (const Row& row : rows)
        if (const Value* const value = find(row.values, name); row.side == side && value != nullptr)
            return value->value;
    return std::nullopt;
}

std::optional<double> ratio(const Rows& rows, const std::string& side, const std::string& reference,
                            const std::string& name) {
    const auto value = valueOf(rows, side, name);
    const auto divisor = valueOf(rows, reference, name);
    return value && divisor && *divisor != 0.0 ? std::optional(*value / *divisor) : std::nullopt;
}

void addRatio(Rows& rows, const std::string& reference, const std::string& name) {
    for (Row& row : rows)
        if (const auto quotient = ratio(rows, row.side, reference, name))
            row.values.push_back({"x " + reference, *quotient});
}

Report::Report() {
    utsname system{};
    uname(&system);
    const std::string model = firstLine("/proc/cpuinfo", "model name");
    json_["machine"] = {
        {"processor", model.substr(std::min(model.find(": ") + 2, model.size()))},
        {"cores", std::to_string(sysconf(_SC_NPROCESSORS_ONLN))},
        {"kernel", fmt::format("{} {}", system.sysname, system.release)},
        {"governor", firstLine("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor")},
        {"load before", firstLine("/proc/loadavg")}};
    for (const auto& [name, text] : json_["machine"].items())
        fmt::print("{:<12} {}\n", name, text.get<std::string>());
}

void Report::table(const std::string& section, const std::string& note, const Rows& rows) {
    if (rows.empty())
        return;
    fmt::print("\n{}\n{}{}", section, note, note.empty() ? "" : "\n");
    // A row may lack a ratio; the longest has all columns.
    const Values& columns = std::ranges::max_element(rows, {}, [](const Row& row) {
                                return row.values.size();
                            })->values;
    size_t width = 0;
    for (const Row& row : rows)
        width = std::max(width, row.side.size());
    fmt::print("  {:<{}}", "", width);
    for (const Value& column : columns)
        fmt::print("  {:>{}}", column.name, std::max<size_t>(8, column.name.size()));
    for (const Row& row : rows) {
        fmt::print("\n  {:<{}}", row.side, width);
        for (const Value& column : columns) {
            const Value* const value = find(row.values, column.name);
            fmt::print("  {:>{}}", value != nullptr ? format(value->value) : "-",
                       std::max<size_t>(8, column.name.size()));
            if (value != nullptr)
                json_["tables"][section][row.side][value->name] = value->value;
        }
    }
    fmt::print("\n");
}

void Report::goal(const std::string& number, const std::string& text, std::optional<double> value,
                  Bound bound, double limit) {
    const bool atMost = bound == Bound::AtMost;
    const bool met = value && (atMost ? *value <= limit : *value >= limit);
    json_["goals"].push_back({{"goal", number},
                              {"text", text},
                              {"value", value ? nlohmann::ordered_json(*value) : nullptr},
                              {"bound", atMost ? "<=" : ">="},
                              {"limit", limit},
                              {"verdict", !value ? "not measured"
                                          : met  ? "met"
                                                 : "NOT met"}});
}

void Report::printGoals() const {
    fmt::print("\nGoals\n");
    const auto text = [](const auto& json) { return json.template get<std::string>(); };
    if (json_.contains("goals"))
        for (const auto& goal : json_["goals"])
            fmt::print("  {}  {:<66}  {:>8}  {} {:<4}  {}\n", text(goal["goal"]),
                       text(goal["text"]), goal["value"].is_null() ? "-" : format(goal["value"]),
                       text(goal["bound"]), goal["limit"].get<double>(), text(goal["verdict"]));
}

void Report::writeJson(const std::string& file) const {
    const auto folder = std::filesystem::path(file).parent_path();
    if (!folder.empty())
        std::filesystem::create_directories(folder);
    std::ofstream stream(file);
    stream << json_.dump(2) << '\n';
    if (!stream.flush())
        throw Failure(fmt::format("{} cannot be written", file));
}

void Report::drawPlots(const std::string& folder) const {
    std::filesystem::create_directories(folder);
    for (const Plot& plot : plots_) {
        const std::string path = folder + "/" + plot.file;
        std::ofstream data(path + ".dat");
        std::string curves;
        for (size_t i = 0; i < plot.curves.size(); ++i) {
            data << "# " << plot.curves[i].title << '\n';
            for (const auto& [x, y] : plot.curves[i].points)
                data << fmt::format("{} {}\n", x, y);
            data << "\n\n";
            curves += fmt::format("{} '{}.dat' index {} with linespoints pointsize 0.5 title '{}'",
                                  i == 0 ? "" : ",", plot.file, i, plot.curves[i].title);
        }
        std::ofstream script(path + ".gp");
        script << fmt::format(
            "set terminal pngcairo size 900,500\nset output '{}.png'\nset title '{}'\n"
            "set xlabel '{}'\nset ylabel '{}'\nset grid\nset key left top\n{}\nplot{}\n",
            plot.file, plot.title, plot.xLabel, plot.yLabel, plot.settings, curves);
        data.close();
        script.close();
        const std::string command = fmt::format("cd '{}' && gnuplot '{}.gp'", folder, plot.file);
        // NOLINTNEXTLINE(cert-env33-c): a developer's own plot, in a folder that he named
        if (system(command.c_str()) != 0)
            fmt::print("{}.png: gnuplot is missing or failed\n", path);
    }
}

// What was measured: tables, the goals' verdicts, JSON and plots.
#ifndef BENCH_REPORT_H
#define BENCH_REPORT_H

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// How the rounds of one side become one number.
enum class Merge { Median, Worst };

struct Value {
    std::string name;
    double value;
    Merge merge = Merge::Median;
};
using Values = std::vector<Value>;
double valueOf(const Values& values, const std::string& name);

// One of the things that are compared, and how to measure it once.
struct Side {
    std::string name;
    std::function<Values()> run;
};
struct Row {
    std::string side;
    Values values;
};
using Rows = std::vector<Row>;

// Runs all sides in turn, then all again, and so on, so that what changes in the machine meanwhile
// meets all of them. A side that fails has no row.
Rows alternate(const std::vector<Side>& sides, int rounds);
// The value of one side; nothing when it was not measured.
std::optional<double> valueOf(const Rows& rows, const std::string& side, const std::string& name);
// The same value of two sides, one divided by the other.
std::optional<double> ratio(const Rows& rows, const std::string& side, const std::string& reference,
                            const std::string& name);
// Adds that ratio as a column.
void addRatio(Rows& rows, const std::string& reference, const std::string& name);

using Points = std::vector<std::pair<double, double>>;
struct Curve {
    std::string title;
    Points points;
};
struct Plot {
    std::string file;  // without ending
    std::string title, xLabel, yLabel;
    std::string settings;  // further commands
    std::vector<Curve> curves;
};

// Prints each table as soon as it is complete, and keeps all for the file.
class Report {
  public:
    enum class Bound { AtMost, AtLeast };

    Report();
    void table(const std::string& section, const std::string& note, const Rows& rows);
    void goal(const std::string& number, const std::string& text, std::optional<double> value,
              Bound bound, double limit);
    void plot(Plot plot) { plots_.push_back(std::move(plot)); }

    void printGoals() const;
    void writeJson(const std::string& file) const;
    // Writes data and scripts into the folder and lets gnuplot draw them.
    void drawPlots(const std::string& folder) const;

  private:
    nlohmann::ordered_json json_;  // machine, tables by section, side and column, goals
    std::vector<Plot> plots_;
};

#endif

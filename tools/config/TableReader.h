// Reads one table of a configuration file. Only the parser of these files includes it, since the
// TOML library is large.
#ifndef TOOLS_CONFIG_TABLEREADER_H
#define TOOLS_CONFIG_TABLEREADER_H

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Quantity.h"
#include "config/ConfigRules.h"

inline ConfigPlace placeOf(const toml::source_region& region, std::string field) {
    return {region.begin.line, region.begin.column, std::move(field)};
}

inline std::string nameOf(toml::node_type type) {
    std::ostringstream name;
    name << type;
    return name.str();
}

// How many letters have to be added, removed or changed to make one word of the other.
inline size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t change = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({change, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// Reads a table key by key, and complains of what it does not understand.
class TableReader {
  public:
    static constexpr double kLargestNumber = 1e9;  // of seconds, for example

    TableReader(const toml::table& table, std::string name, ConfigProblems& problems)
        : table_(table), name_(std::move(name)), problems_(problems) {}

    const toml::node* find(std::string_view key) {
        known_.push_back(key);
        return table_.get(key);
    }

    std::string fieldOf(std::string_view key) const {
        return name_.empty() ? std::string(key) : fmt::format("{}.{}", name_, key);
    }

    ConfigPlace place(std::string_view key) const {
        const toml::node* const node = table_.get(key);
        return placeOf(node != nullptr ? node->source() : table_.source(), fieldOf(key));
    }

    void expect(const toml::node& node, const std::string& field, std::string_view what) {
        problems_.add(placeOf(node.source(), field),
                      fmt::format("{} is expected, not {}", what, nameOf(node.type())));
    }

    // A text that has to be there.
    std::string text(std::string_view key) {
        const toml::node* const node = find(key);
        if (node == nullptr)
            problems_.add(place(key), "is missing");
        return node != nullptr ? text(*node, fieldOf(key)) : std::string();
    }

    std::string text(const toml::node& node, const std::string& field) {
        const auto* const value = node.as_string();
        if (value == nullptr)
            expect(node, field, "a string");
        else if (value->get().empty() || value->get().find('\0') != std::string::npos)
            problems_.add(placeOf(node.source(), field), "is empty or contains a null character");
        return value != nullptr ? value->get() : std::string();
    }

    bool flag(std::string_view key) {
        const toml::node* const node = find(key);
        if (node != nullptr && !node->is_boolean())
            expect(*node, fieldOf(key), "true or false");
        return node != nullptr && node->is_boolean() && node->value_or(false);
    }

    // From 1 up, as a number or as a string with k, M or G.
    template <typename Number>
    std::optional<Number> quantity(std::string_view key, uint64_t largest,
                                   std::string_view others = "") {
        const toml::node* const node = find(key);
        if (node == nullptr)
            return std::nullopt;
        std::optional<uint64_t> value;
        if (const auto* const string = node->as_string())
            value = parseQuantity(string->get());
        else if (const auto* const integer = node->as_integer())
            value = static_cast<uint64_t>(std::max<int64_t>(integer->get(), 0));
        if (!value || *value < 1 || *value > largest) {
            problems_.add(place(key),
                          fmt::format("{}an integer from 1 to {}, or a string like \"2.5M\" "
                                      "or \"800k\", is expected",
                                      others, largest));
            return std::nullopt;
        }
        return static_cast<Number>(*value);
    }

    std::optional<std::chrono::milliseconds> seconds(std::string_view key, double smallest) {
        if (const auto value = number(key, smallest, "a number of seconds"))
            return std::chrono::milliseconds(std::llround(*value * 1e3));
        return std::nullopt;
    }

    std::optional<double> number(std::string_view key, double smallest, std::string_view what) {
        const toml::node* const node = find(key);
        if (node == nullptr)
            return std::nullopt;
        const double value = node->is_number() ? node->value_or(-1.0) : -1.0;
        if (value >= smallest && value <= kLargestNumber)
            return value;
        problems_.add(place(key),
                      fmt::format("{} from {} to {} is expected", what, smallest, kLargestNumber));
        return std::nullopt;
    }

    // To be called when all known keys have been asked for.
    void complainOfOthers() {
        for (const auto& [key, node] : table_) {
            if (std::find(known_.begin(), known_.end(), key.str()) != known_.end())
                continue;
            const auto nearest =
                std::min_element(known_.begin(), known_.end(),
                                 [&word = key](std::string_view a, std::string_view b) {
                                     return distance(word.str(), a) < distance(word.str(), b);
                                 });
            std::string advice;
            const size_t shorter = std::min(key.str().size(), nearest->size());
            if (2 * distance(key.str(), *nearest) < shorter)
                advice = fmt::format("; is '{}' meant?", *nearest);
            problems_.add(placeOf(key.source(), fieldOf(key.str())),
                          fmt::format("unknown key{}", advice));
        }
    }

  private:
    const toml::table& table_;
    std::string name_;
    ConfigProblems& problems_;
    std::vector<std::string_view> known_;
};

#endif

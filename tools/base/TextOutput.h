#ifndef TOOLS_BASE_TEXTOUTPUT_H
#define TOOLS_BASE_TEXTOUTPUT_H

#include <fmt/format.h>

#include <string>
#include <utility>

// Appends to a text, which must outlive it. fmt::format_to does so too, but compiles all of the
// formatting again in every unit that calls it.
class TextOutput {
  public:
    explicit TextOutput(std::string& text) : text_(&text) {}

    template <typename... Values>
    void operator()(fmt::format_string<Values...> format, Values&&... values) const {
        *text_ += fmt::format(format, std::forward<Values>(values)...);
    }

  private:
    std::string* text_;
};

#endif

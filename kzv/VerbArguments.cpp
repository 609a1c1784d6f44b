#include "kzv/VerbArguments.h"

#include <CLI/CLI.hpp>

namespace kzv::cli {

using Argument = VerbArguments::Argument;

Argument& Argument::required() {
  option_->required();
  return *this;
}

Argument& Argument::notEmpty() {
  option_->check([](const std::string& text) { return text.empty() ? "must not be empty" : std::string(); });
  return *this;
}

Argument& Argument::valueName(const std::string& word) {
  option_->option_text(word);
  return *this;
}

Argument& Argument::hidden() {
  option_->group("");
  return *this;
}

Argument& Argument::excludes(const Argument& other) {
  option_->excludes(other.option_);
  return *this;
}

Argument VerbArguments::flag(const std::string& name, bool& value, const std::string& help) {
  return Argument(*command_.add_flag(name, value, help));
}

Argument VerbArguments::value(const std::string& name, std::string& value, const std::string& help) {
  return Argument(*command_.add_option(name, value, help));
}

Argument VerbArguments::value(const std::string& name, std::optional<std::string>& value,
                              const std::string& help) {
  return Argument(*command_.add_option(name, value, help));
}

Argument VerbArguments::value(const std::string& name, int& value, const std::string& help) {
  return Argument(*command_.add_option(name, value, help));
}

Argument VerbArguments::values(const std::string& name, std::vector<std::string>& values,
                               const std::string& help) {
  return Argument(*command_.add_option(name, values, help));
}

}  // namespace kzv::cli

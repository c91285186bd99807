#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace qs_client {

/// Help in the program's own words: the library's would add types, checks and counts.
std::shared_ptr<CLI::Formatter> helpText();

using Check = std::function<std::string(const std::string& value)>;

/// Whole decimal numbers from `low` to `high`.
Check isBetween(std::int64_t low, std::int64_t high);
/// Handles, of 64 bits.
Check isHandle();
/// Turns a name into its number, both as the library takes them; throws CLI::ValidationError for
/// one that is not among `names`.
std::function<std::string(std::string)> numberOf(std::map<std::string, int> names);

/// What is wrong with the command line and what to do about it, in a sentence.
std::string explain(const CLI::ParseError& error, const CLI::App& app);

}  // namespace qs_client

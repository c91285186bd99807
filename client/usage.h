#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qs_client {

/// Help in the program's own words: the library's would add types, checks and counts.
std::shared_ptr<CLI::Formatter> helpText();

/// Turns a word into what the library is to convert; throws CLI::ValidationError for one that is
/// not allowed.
using Reading = std::function<std::string(std::string word)>;

/// The program's arguments, last first, as the library takes them; what stands in brackets is
/// guarded, since the library would make a list of it.
std::vector<std::string> guardedWords(int argc, char** argv);
/// Takes the guard away.
Reading withoutGuard();

/// Whole decimal numbers from `low` to `high`: the library would take 010 for 8.
Reading number(std::int64_t low, std::int64_t high);
/// Handles, of 64 bits.
Reading handle();
/// Names that stand for numbers.
Reading numberOf(std::map<std::string, int> names);

/// What is wrong with the command line and what to do about it, in a sentence.
std::string explain(const CLI::ParseError& error, const CLI::App& app);

}  // namespace qs_client

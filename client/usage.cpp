#include "usage.h"

#include <charconv>
#include <utility>
#include <vector>

#include "platform/key_value_file.h"

namespace qs_client {

namespace {

// No text that is spoken holds it.
constexpr char kGuard = '\1';

class HelpText final : public CLI::Formatter {
 public:
  HelpText() {
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
  }

  std::string make_description(const CLI::App* app) const override {
    return app->get_description() + ".\n\n";
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return type.empty() ? "" : " " + type;
  }
};

[[noreturn]] void refuse(const std::string& why) {
  throw CLI::ValidationError(why, CLI::ExitCodes::ValidationError);
}

// The library's messages begin with the option's name.
std::string nameIn(const std::string& message) {
  return message.substr(0, message.find_first_of(": "));
}

std::string explainCount(const std::string& name, const CLI::App& command) {
  // A flag's message leaves its dashes out.
  const bool isFlag = command.get_option_no_throw(name) == nullptr;
  return isFlag ? "--" + name + " takes no value" : name + " takes one value";
}

std::string explainExtra(const std::string& extra, const CLI::App& command) {
  const bool mayBeText = extra.starts_with('-') && command.get_option_no_throw("text") != nullptr;
  return extra + " is not understood; " +
         (mayBeText ? "put -- before a text that begins with -, or " : "");
}

// Up to where the help is named.
std::string explainFor(const CLI::ParseError& error, const CLI::App& command) {
  const std::string message = error.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
    return explainExtra(command.remaining(true).front(), command);
  }
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    return explainCount(nameIn(message), command) + "; ";
  }
  const bool notConverted = dynamic_cast<const CLI::ConversionError*>(&error) != nullptr;
  return (notConverted ? "a value is not understood" : message) + "; ";
}

}  // namespace

std::shared_ptr<CLI::Formatter> helpText() {
  return std::make_shared<HelpText>();
}

std::vector<std::string> guardedWords(int argc, char** argv) {
  std::vector<std::string> words;
  for (int i = argc - 1; i > 0; --i) {
    std::string& word = words.emplace_back(argv[i]);
    if (word.starts_with('[') && word.ends_with(']')) word += kGuard;
  }
  return words;
}

Reading withoutGuard() {
  return [](std::string word) {
    if (word.starts_with('[') && word.ends_with(kGuard)) word.pop_back();
    return word;
  };
}

Reading number(std::int64_t low, std::int64_t high) {
  return [low, high](const std::string& word) {
    const auto value = platform::parseDecimal(word);
    if (value && *value >= low && *value <= high) return std::to_string(*value);
    refuse(word + " is no number from " + std::to_string(low) + " to " + std::to_string(high));
  };
}

Reading handle() {
  return [](const std::string& word) {
    std::uint64_t value = 0;
    const char* const end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, value);
    if (error == std::errc() && rest == end) return std::to_string(value);
    refuse(word + " is no handle, which is the number that say --no-wait prints");
  };
}

Reading numberOf(std::map<std::string, int> names) {
  return [names = std::move(names)](const std::string& value) {
    const auto found = names.find(value);
    if (found != names.end()) return std::to_string(found->second);
    std::string known;
    for (const auto& [name, number] : names)
      known += (known.empty() ? "" : ", ") + name;
    refuse(value + " is none of " + known);
  };
}

std::string explain(const CLI::ParseError& error, const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  if (!chosen.empty()) {
    return explainFor(error, *chosen.front()) + "see quillspeak " + chosen.front()->get_name() +
           " --help";
  }
  const auto words = app.remaining(true);
  return (words.empty() ? "no command is named" : words.front() + " is not understood") +
         std::string("; quillspeak --help lists the commands");
}

}  // namespace qs_client

// The command-line client of the daemon.

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "bus.h"
#include "failure.h"
#include "requests.h"
#include "say.h"
#include "settings.h"
#include "watch.h"

namespace {

using qs_client::kFailed;
using qs_client::kOk;
using qs_client::kUsage;

constexpr char kExitCodes[] =
    "Exit codes: 0 played or done, 1 failed, 2 usage, 3 stopped, 4 no result.";

void addSay(CLI::App& app, int& code) {
  auto* const command = app.add_subcommand("say", "Speak texts, or standard input");
  const auto options = std::make_shared<qs_client::SayOptions>();
  command->add_option("text", options->texts, "What to speak, one after the other");
  command->add_option("--speed", options->speed, "1 slowest, 5 fastest")->check(CLI::Range(1, 5));
  const std::map<std::string, bool> voices{{"configured", false}, {"fast", true}};
  command->add_option("--voice", options->fastVoice, "configured or fast")
      ->transform(CLI::Transformer(voices));
  command->add_flag("--alert", options->alert, "Play the alert sound after the texts");
  command->add_flag("--silence", options->silence, "Feed silence between the texts");
  const std::map<std::string, int> names{
      {"normal", 0}, {"polite", 1}, {"urgent", 2}, {"urgent-polite", 3}};
  command
      ->add_option("--precedence", options->precedence,
                   "normal: displaces others but urgent ones; polite: waits behind normal ones, "
                   "gives way to all; urgent: gives way to none; urgent-polite: both bits, now as "
                   "urgent")
      ->transform(CLI::CheckedTransformer(names));
  command->add_option("--type", options->type, "A number of your own, reported back");
  auto* const noWait =
      command->add_flag("--no-wait", options->noWait, "Print the handle and do not wait");
  const auto wait = std::make_shared<int>();
  command
      ->add_option("--wait", *wait, "Wait so long for the result where the texts alone need less")
      ->check(CLI::Range(1, 86400))
      ->excludes(noWait);
  command->footer(kExitCodes);
  command->callback([options, wait, &code] {
    options->wait = std::chrono::seconds(*wait);
    code = qs_client::say(*options);
  });
}

void addRequests(CLI::App& app, int& code) {
  auto* const stop = app.add_subcommand("stop", "Stop a request");
  const auto handle = std::make_shared<std::uint64_t>();
  stop->add_option("handle", *handle, "What say --no-wait printed")->required();
  stop->callback([handle] { qs_client::Bus().StopTTSPlay(*handle, 0, 0); });

  auto* const file = app.add_subcommand("file", "Convert a text into a wave file");
  const auto conversion = std::make_shared<std::pair<std::string, std::string>>();
  file->add_option("text", conversion->first, "What to convert")->required();
  file->add_option("path", conversion->second, "The file")->required();
  file->callback(
      [conversion, &code] { code = qs_client::convert(conversion->first, conversion->second); });

  auto* const volume = app.add_subcommand("volume", "Set the volume");
  const auto level = std::make_shared<std::int32_t>();
  volume->add_option("level", *level, "-5 to 8; 2 is normal")->required()->check(CLI::Range(-5, 8));
  volume->callback([level] { qs_client::Bus().SetVolume(*level); });

  app.add_subcommand("reload", "Build the phrase caches anew")->callback([] {
    qs_client::Bus().ReloadConfig(0);
  });
}

void addSettings(CLI::App& app, int& code) {
  const auto setting = std::make_shared<std::pair<std::string, std::string>>();
  auto* const get = app.add_subcommand("get", "Print a property in force, or all");
  get->add_option("key", setting->first, "The property; all where none is named");
  const auto json = std::make_shared<bool>();
  get->add_flag("--json", *json, "As a JSON object");
  get->callback([setting, json] { qs_client::printProperties(setting->first, *json); });
  auto* const set = app.add_subcommand("set", "Change a property");
  set->add_option("key", setting->first, "The property")->required();
  set->add_option("value", setting->second, "Its new value")->required();
  set->callback(
      [setting, &code] { code = qs_client::setProperty(setting->first, setting->second); });
}

void addReports(CLI::App& app, int& code) {
  const auto json = std::make_shared<bool>();
  auto* const status = app.add_subcommand("status", "Tell whether the daemon runs");
  status->add_flag("--json", *json, "As a JSON object");
  status->callback([json, &code] { code = qs_client::status(*json); });
  auto* const watch = app.add_subcommand("watch", "Print results as they come");
  watch->add_flag("--json", *json, "Each as a JSON object");
  watch->callback([json, &code] { code = qs_client::watch(*json); });
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Speaks through the daemon quillspeak-daemon.", "quillspeak");
  app.set_version_flag("--version", QUILLSPEAK_VERSION);
  app.require_subcommand(1);
  app.footer(kExitCodes);
  int code = kOk;
  addSay(app, code);
  addRequests(app, code);
  addReports(app, code);
  addSettings(app, code);
  try {
    app.parse(argc, argv);
    return code;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kOk : kUsage;
  } catch (const qs_client::UsageFailure& error) {
    std::cerr << "quillspeak: " << error.what() << '\n';
    return kUsage;
  } catch (const DBus::Error& error) {
    std::cerr << "quillspeak: " << qs_client::explain(error) << '\n';
  } catch (const std::exception& error) {
    std::cerr << "quillspeak: " << error.what() << '\n';
  }
  return kFailed;
}

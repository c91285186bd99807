// The command-line client of the daemon.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "bus.h"
#include "failure.h"
#include "requests.h"
#include "say.h"
#include "settings.h"
#include "usage.h"
#include "watch.h"

namespace {

using qs_client::kFailed;
using qs_client::kOk;
using qs_client::kUsage;

constexpr char kExitCodes[] = "Exit codes: 0 done, 1 failed, 2 usage.";

CLI::App* addCommand(CLI::App& app, const char* name, const char* description,
                     const char* exitCodes = kExitCodes) {
  CLI::App* const command = app.add_subcommand(name, description);
  command->footer(exitCodes);
  return command;
}

CLI::Option* addFlag(CLI::App& command, const char* name, bool& flag, const char* description) {
  return command.add_flag(name, flag, description)->disable_flag_override();
}

template <typename Value>
CLI::Option* addArgument(CLI::App& command, const char* name, Value& value,
                         const char* description) {
  return command.add_option(name, value, description)
      ->type_name("")
      ->transform(qs_client::withoutGuard());
}

void addSayOptions(CLI::App& command, qs_client::SayOptions& options) {
  using Number = std::numeric_limits<std::int32_t>;
  addArgument(command, "text", options.texts, "What to speak, one after the other");
  command.add_option("--speed", options.speed, "1 slowest, 5 fastest; else as configured")
      ->type_name("LEVEL")
      ->transform(qs_client::number(1, 5));
  command.add_option("--voice", options.fastVoice, "configured (the default) or fast")
      ->type_name("NAME")
      ->transform(qs_client::numberOf({{"configured", 0}, {"fast", 1}}));
  addFlag(command, "--alert", options.alert, "Play the alert sound after the texts");
  addFlag(command, "--silence", options.silence, "Feed silence between the texts");
  command
      .add_option("--precedence", options.precedence,
                  "normal (the default): displaces others but urgent ones;\n"
                  "polite: waits behind normal ones, gives way to all;\n"
                  "urgent: gives way to none;\n"
                  "urgent-polite: both bits, now as urgent")
      ->type_name("NAME")
      ->transform(
          qs_client::numberOf({{"normal", 0}, {"polite", 1}, {"urgent", 2}, {"urgent-polite", 3}}));
  command.add_option("--type", options.type, "A number of your own, reported back")
      ->type_name("NUMBER")
      ->transform(qs_client::number(Number::min(), Number::max()));
}

void addSay(CLI::App& app, int& code) {
  CLI::App* const command =
      addCommand(app, "say", "Speak texts, or standard input",
                 "Exit codes: 0 played, 1 failed, 2 usage, 3 stopped, 4 no result.");
  const auto options = std::make_shared<qs_client::SayOptions>();
  const auto wait = std::make_shared<int>();
  addSayOptions(*command, *options);
  CLI::Option* const noWait =
      addFlag(*command, "--no-wait", options->noWait, "Print the handle and do not wait");
  command
      ->add_option("--wait", *wait, "Wait so long for the result where the texts alone need less")
      ->type_name("SECONDS")
      ->transform(qs_client::number(1, 86400))
      ->excludes(noWait);
  command->callback([options, wait, &code] {
    options->wait = std::chrono::seconds(*wait);
    code = qs_client::say(*options);
  });
}

void addRequests(CLI::App& app, int& code) {
  CLI::App* const stop = addCommand(app, "stop", "Stop a request");
  const auto handle = std::make_shared<std::uint64_t>();
  addArgument(*stop, "handle", *handle, "What say --no-wait printed")
      ->required()
      ->transform(qs_client::handle());
  stop->callback([handle] { qs_client::Bus().StopTTSPlay(*handle, 0, 0); });

  CLI::App* const file =
      addCommand(app, "file", "Convert a text into a wave file",
                 "Exit codes: 0 written, 1 failed, 2 usage, 4 interrupted; the daemon goes on.");
  const auto conversion = std::make_shared<std::pair<std::string, std::string>>();
  addArgument(*file, "text", conversion->first, "What to convert")->required();
  addArgument(*file, "path", conversion->second, "The file")->required();
  file->callback(
      [conversion, &code] { code = qs_client::convert(conversion->first, conversion->second); });

  CLI::App* const volume = addCommand(app, "volume", "Set the volume");
  const auto level = std::make_shared<std::int32_t>();
  addArgument(*volume, "level", *level, "-5 to 8; 2 is normal")
      ->required()
      ->transform(qs_client::number(-5, 8));
  volume->callback([level] { qs_client::Bus().SetVolume(*level); });

  addCommand(app, "reload", "Build the phrase caches anew")->callback([] {
    qs_client::Bus().ReloadConfig(0);
  });
}

void addSettings(CLI::App& app, int& code) {
  const auto setting = std::make_shared<std::pair<std::string, std::string>>();
  const auto json = std::make_shared<bool>();
  CLI::App* const get = addCommand(app, "get", "Print a property in force, or all");
  addArgument(*get, "key", setting->first, "The property; all where none is named");
  addFlag(*get, "--json", *json, "As a JSON object");
  get->callback([setting, json] { qs_client::printProperties(setting->first, *json); });

  CLI::App* const set = addCommand(app, "set", "Change a property");
  addArgument(*set, "key", setting->first, "The property")->required();
  addArgument(*set, "value", setting->second, "Its new value")->required();
  set->callback(
      [setting, &code] { code = qs_client::setProperty(setting->first, setting->second); });
}

void addReports(CLI::App& app, int& code) {
  const auto json = std::make_shared<bool>();
  CLI::App* const status =
      addCommand(app, "status", "Tell whether the daemon runs, and the properties in force",
                 "Exit codes: 0 it runs, 1 it does not, or failed, 2 usage.");
  addFlag(*status, "--json", *json, "As a JSON object");
  status->callback([json, &code] { code = qs_client::status(*json); });

  CLI::App* const watch =
      addCommand(app, "watch", "Print results as they come",
                 "Exit codes: 0 interrupted, 1 failed or the daemon has gone, 2 usage.");
  addFlag(*watch, "--json", *json, "Each as a JSON object");
  watch->callback([json, &code] { code = qs_client::watch(*json); });
}

void addCommands(CLI::App& app, int& code) {
  app.formatter(qs_client::helpText());
  app.set_help_flag("-h,--help", "Print this help");
  app.set_version_flag("--version", QUILLSPEAK_VERSION, "Print the version");
  app.require_subcommand(1);
  app.footer("quillspeak COMMAND --help has the command's options and exit codes.");
  addSay(app, code);
  addRequests(app, code);
  addReports(app, code);
  addSettings(app, code);
}

int complain(const std::string& sentence, int code) {
  std::cerr << "quillspeak: " << sentence << '\n';
  return code;
}

// One that the caller closed would become the bus's socket, and what is printed go there. Opened
// the wrong way round, it fails as a closed one does.
void keepStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    if (open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) != stream) _exit(kFailed);
  }
}

// A text that begins like the short option is taken for it by the library, which then succeeds.
std::string mistakenForHelp(int argc, char** argv) {
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
    const std::string_view word = argv[i];
    if (word.starts_with("-h") && word.size() > 2) return argv[i];
  }
  return {};
}

// What is still in the buffer meets a full disk or a closed pipe only here.
int finish(int code) {
  if (std::cout.flush()) return code;
  return complain(
      "standard output cannot be written to; free space there, or keep its reader running",
      kFailed);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Speak through the daemon quillspeak-daemon", "quillspeak");
  int code = kOk;
  keepStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
  addCommands(app, code);
  try {
    app.parse(qs_client::guardedWords(argc, argv));
    return finish(code);
  } catch (const CLI::Success& asked) {
    const std::string text = mistakenForHelp(argc, argv);
    if (text.empty()) return finish(app.exit(asked));
    return complain(text + " is not understood; put -- before a text that begins with -", kUsage);
  } catch (const CLI::ParseError& error) {
    return complain(qs_client::explain(error, app), kUsage);
  } catch (const qs_client::UsageFailure& error) {
    return complain(error.what(), kUsage);
  } catch (const DBus::Error& error) {
    return complain(qs_client::explain(error), kFailed);
  } catch (const qs_client::Failure& error) {
    return complain(error.what(), kFailed);
  } catch (const std::bad_alloc&) {
    return complain("out of memory; end other programs, or give a shorter text", kFailed);
  } catch (const std::exception& error) {
    return complain("internal failure (" + std::string(error.what()) + "); report it", kFailed);
  }
}

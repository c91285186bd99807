#include "support/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace test {

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all(texts.size() + 1);  // the last one is null
  std::transform(texts.begin(), texts.end(), all.begin(),
                 [](std::string& text) { return text.data(); });
  return all;
}

// Of two entries of one name the first counts.
std::vector<std::string> withOurs(const Environment& added) {
  std::vector<std::string> all(added);
  for (char** entry = environ; *entry != nullptr; ++entry)
    all.emplace_back(*entry);
  return all;
}

// What was built for another processor than this machine's runs under an emulator, also where a
// program of the machine's starts it.
void addEmulator([[maybe_unused]] std::vector<std::string>& command) {
#ifdef QS_TEST_EMULATOR
  const std::vector<std::string> emulator{QS_TEST_EMULATOR};
  const auto built = std::find_if(command.begin(), command.end(), [](const std::string& word) {
    return word.starts_with(QS_TEST_BUILD_FOLDER);
  });
  if (built != command.end()) command.insert(built, emulator.begin(), emulator.end());
#endif
}

}  // namespace

std::string preloadEntry() {
  return "LD_PRELOAD=" QS_TEST_PRELOAD;
}

ChildProcess::ChildProcess(const std::string& program, std::vector<std::string> arguments,
                           const Environment& environment) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
  output = ends[0];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  arguments.insert(arguments.begin(), program);
  addEmulator(arguments);
  std::vector<std::string> variables = withOurs(environment);
  const int error = posix_spawn(&process, arguments.front().c_str(), &actions, nullptr,
                                pointers(arguments).data(), pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (error != 0) std::abort();
}

ChildProcess::~ChildProcess() {
  if (!ended) {
    kill(process, SIGKILL);
    wait();
  }
  close(output);
}

bool ChildProcess::readByte() {
  char byte = 0;
  return read(output, &byte, 1) == 1;
}

std::string ChildProcess::readUntil(const std::string& end) {
  std::string text;
  char byte = 0;
  while (!text.ends_with(end) && read(output, &byte, 1) == 1)
    text += byte;
  return text;
}

std::string ChildProcess::readAll() {
  std::string text;
  char part[4096];
  ssize_t count = 0;
  while ((count = read(output, part, sizeof part)) > 0)
    text.append(part, static_cast<std::size_t>(count));
  return text;
}

int ChildProcess::wait() {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  ended = true;
  return status;
}

}  // namespace test

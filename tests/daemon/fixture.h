#pragma once

#include <string>

#include <gtest/gtest.h>

#include "daemon/harness.h"

namespace test {

/// A bus, the daemon on it and one client, all new for each case.
class DaemonTest : public testing::Test {
 protected:
  void start(const Daemon::Options& options = {}) {
    daemon.emplace(folder, bus.address(), options);
    client.emplace(bus.address());
    ASSERT_TRUE(client->awaitName());
  }

  /// Plays, waits for the result and returns it.
  std::optional<std::uint32_t> playToEnd(const std::vector<std::string>& texts,
                                         std::int32_t flags = 0) {
    const Reply reply = client->play(texts, flags);
    EXPECT_EQ(reply.error, "");
    const auto result = client->awaitResult(reply.value);
    return result.has_value() ? std::optional(result->resultCode) : std::nullopt;
  }

  std::vector<std::int16_t> recording() const { return readRecording(folder / "sound.wav"); }

  void setProperties(const std::string& text) {
    writeFile(folder / "properties.new", text);
    std::filesystem::rename(folder / "properties.new", folder / "properties.conf");
  }

  ScratchFolder folder;
  PrivateBus bus{folder};
  std::optional<Daemon> daemon;
  std::optional<Client> client;
};

/// Do sanitizers slow the daemon down?
#ifdef QUILLSPEAK_SLOW_BUILD
inline constexpr bool kSlowBuild = true;
#else
inline constexpr bool kSlowBuild = false;
#endif

/// Longer than any test waits for it to be spoken.
inline std::string longText() {
  std::string text;
  for (int i = 0; i < 60; ++i)
    text += "the quick brown fox jumps over the lazy dog ";
  return text;
}

}  // namespace test

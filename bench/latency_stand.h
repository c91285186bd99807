#pragma once

#include <optional>
#include <random>
#include <string>

#include "daemon/harness.h"
#include "latency_calibration.h"
#include "latency_recorder.h"
#include "latency_texts.h"
#include "support/sound_server.h"

namespace bench {

/// Points this program at a sound server that is started next.
class UsedFolder : public test::ScratchFolder {
 public:
  UsedFolder() { test::useSoundServer(*this); }
};

/// A call to play, and the moment before it was sent.
struct Call {
  Moment at;
  std::uint64_t handle = 0;
  std::int32_t number = 0;  // goes with the request as its type
};

/// A sound server, a bus and a daemon that speaks to it, all of the bench's own, with one client
/// and the recorder. One thread; what fails throws.
class Stand {
 public:
  Stand() = default;

  /// Ends what was there; a new client, and no daemon yet.
  void prepare();
  /// A new daemon; the moment before it was started.
  Moment launch();
  /// A new daemon that has its name and all of its static phrases, and has come to rest.
  void start();

  /// Ends the daemon.
  void end();

  test::Client& client() { return *connected; }
  const test::Daemon& daemon() const { return *running; }
  std::string busAddress() const { return bus.address(); }
  std::string file(const std::string& name) const { return *daemonFolder / name; }

  /// Blocks until nothing sounds, and for a random part of 20 ms more, so that calls meet every
  /// place in the periods of the sound.
  void settle();
  Call play(const std::string& text);
  /// Blocks until that request's result has come.
  void awaitResult(const Call& call);
  void stop(const Call& call);
  /// Plays it from the beginning to the end.
  void playWhole(const std::string& text);

  /// From `call` until something is heard; throws where nothing is within 5 s.
  Moment awaitHeard(const Call& call);
  /// A moment later by `least` and up to as much again; returns at that moment.
  void pause(std::chrono::milliseconds least);

  /// How many streams are open at the sound server?
  int playingStreams() const { return pulse.playingStreams(); }
  /// `bench::compareClicks` for the stand's recorder.
  std::vector<double> compareClicks() { return bench::compareClicks(pulse, recorder); }

 private:
  // The server before those who talk to it.
  UsedFolder folder;
  test::SoundServer server{folder};
  test::PrivateBus bus{folder};
  const PulseConnection pulse;

 public:
  MonitorRecorder recorder{pulse};
  Texts texts;

 private:
  std::minstd_rand chance{1};
  std::int32_t calls = 0;
  std::optional<test::ScratchFolder> daemonFolder;
  std::optional<test::Daemon> running;
  std::optional<test::Client> connected;
};

}  // namespace bench

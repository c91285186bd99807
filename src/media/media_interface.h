#pragma once

#include <atomic>
#include <cstdint>

#include "core/interfaces/media_interface_base.h"

namespace qs_ns {

/// The daemon's only client of the media server. Session and gain are single words that other
/// threads read; opens, closes and tones come from one thread at a time. Logs once where a session
/// dies while it is played to.
class QS_MediaInterface final : public QS_MediaInterfaceBase {
 public:
  QS_MediaInterface() = default;
  ~QS_MediaInterface() override;
  QS_MediaInterface(const QS_MediaInterface&) = delete;
  QS_MediaInterface& operator=(const QS_MediaInterface&) = delete;

  int cleanupMSInterface() override;
  bool initializeMSInterface() override;
  int setPathMsAudPlaybackSession() override;
  int startMsAudPlaybackSession() override;
  int stopMsAudPlaybackSession() override;
  int playDataMsAudPlaybackSession(const void* data, unsigned int bytes) override;
  int getMsAudPlaybackSession() override;
  void setVolume(int level) override;
  int getVolume() override;
  int startMsTone(int tone) override;
  int stopMsTone(int tone) override;
  int dropMsAudPlaybackSession() override;

 private:
  static constexpr std::int32_t kInitialVolume = 512;

  std::atomic<std::int32_t> session{0};              // 0: none is open
  std::atomic<std::int32_t> volume{kInitialVolume};  // Q10
  std::atomic<bool> deathLogged{false};              // of the open session
};

}  // namespace qs_ns

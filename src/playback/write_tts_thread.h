#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "platform/thread.h"
#include "playback/frame_output.h"
#include "playback/play_request.h"
#include "playback/request_outcome.h"

namespace qs_ns {

/// The real-time end of one request: takes sample blocks from its queue, cuts them into 10 ms
/// frames and plays them at the pace of the media server, then the alert if asked for, and reports
/// result 0. Created, started, joined and destroyed by the streaming object, on the play queue
/// thread. It ends when the queue is exhausted, or at the next frame or take once stopped.
class QS_WriteTTSThread final : public platform::Thread {
 public:
  /// None of them is owned; all outlive the writer.
  QS_WriteTTSThread(QS_ControllerBase* owner, SampleQueue& source, const QS_PlayRequest* played,
                    RequestOutcome& decision);
  /// Closes the playback session, should it be open. The thread has been joined before.
  ~QS_WriteTTSThread() override;

  int start() { return run("QS_WriteTTSThread", 0, 0); }

  /// Ends the request. Called with the outcome's lock held; never blocks. A writer that waits for
  /// samples sees it when its queue is marked exhausted.
  void stop() { stopped = true; }
  /// From the next take on, feeds the media server with silence while nothing is queued, or no
  /// longer. A writer that has run dry before waits for the next block in silence of its own.
  /// Streaming side.
  void setSendSilence(bool wanted) { sendSilence = wanted; }

 protected:
  bool threadLoop() override;

 private:
  /// Samples taken from the queue that do not fill a frame yet.
  struct Pending {
    std::array<std::int16_t, kFrameSamples> samples{};
    int count = 0;

    void append(const std::int16_t* from, int samplesToAdd);
    /// Puts zeros behind the samples and empties itself; the frame stays valid until the next
    /// append.
    Frame takeFrame();
  };

  void playQueue(FrameOutput& output, std::int16_t target);
  void playBlock(FrameOutput& output, Pending& pending, std::int16_t& target,
                 const QS_StreamData& block);
  void playGap(FrameOutput& output, Pending& pending);
  void playAlertFile(FrameOutput& output);
  void reportPlayed();

  std::atomic<bool> stopped{false};
  QS_ControllerBase* const controller;
  SampleQueue& queue;
  const QS_PlayRequest* const request;
  std::atomic<bool> sendSilence{false};
  RequestOutcome& outcome;
};

}  // namespace qs_ns

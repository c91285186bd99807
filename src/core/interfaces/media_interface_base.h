#pragma once

namespace qs_ns {

/// The daemon's side of the media server: at most one playback session, tones, and the gain that
/// the writer applies. `setVolume`, the getters and the drop never block and may be called from any
/// thread. The rest may be called by one thread at a time; a sound device that hangs costs each of
/// them about a second.
class QS_MediaInterfaceBase {
 public:
  virtual ~QS_MediaInterfaceBase() = default;

  /// Disconnects; the media server's status.
  virtual int cleanupMSInterface() = 0;
  /// Connects, forgets the session and sets the gain to 512 (Q10); false on failure.
  virtual bool initializeMSInterface() = 0;
  /// Chooses where the sound of sessions goes. Always 0, whatever the media server says.
  virtual int setPathMsAudPlaybackSession() = 0;
  /// Opens the session if none is open: 0, or -5.
  virtual int startMsAudPlaybackSession() = 0;
  /// Lets what waits be heard and closes the session if one is open. Always 0.
  virtual int stopMsAudPlaybackSession() = 0;
  /// Plays `bytes` bytes of 48 kHz mono 16-bit sound; blocks for as long as they sound, as a sound
  /// card does. The bytes taken, or a negative value on a session that is dead or not open.
  virtual int playDataMsAudPlaybackSession(const void* data, unsigned int bytes) = 0;
  /// The open session's handle, 0 when none is open.
  virtual int getMsAudPlaybackSession() = 0;
  /// Sets the gain of a volume level, 1.3^(level - 2) x 512 in Q10, kept within 32 bits. The writer
  /// takes its low 16 bits, so only levels up to 17 have a meaning.
  virtual void setVolume(int level) = 0;
  /// The gain in Q10 (1024 is unity).
  virtual int getVolume() = 0;
  /// Starts the alert tone, whatever `tone` says; the tone session (0 or more) for `stopMsTone`, or
  /// a negative code, with which the session stays open.
  virtual int startMsTone(int tone) = 0;
  /// Stops and closes it: 0, or -1.
  virtual int stopMsTone(int session) = 0;
  /// Lets the open session be silent at once: what waits fades out within 5 ms and what is played
  /// from then on is not heard (a recording keeps all of it). Any thread; never blocks, so locks
  /// may be held. 0, or a negative value where no session is open.
  virtual int dropMsAudPlaybackSession() = 0;
};

}  // namespace qs_ns

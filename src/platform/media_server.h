#pragma once

// The media server's client library. Any thread may call any of these, `ms_start` one at a time. A
// device that does not answer is given up after a second; where each of its answers takes nearly as
// long, a call may take three, beyond the time of its sound. 0 is success and a negative errno
// value failure, where nothing else is said. A stream's handle is above 0, a tone's session 0 or
// above; neither is used twice before all others were.

/// Connects to the media server. Never fails and never waits for a device here.
int ms_start();
/// Ends all tones, and the stream when what waits of it was heard.
int ms_stop();

/// Opens a playback stream: a handle, or 0 where none could be opened (or a tone is playing).
/// `stream` is 2: signed 16-bit mono samples in native byte order, 48,000 a second.
int ms_openAudPlayback(int stream);
/// Plays `bytes` bytes, in order. Blocks while more than the depth, 20 to 80 ms, waits in the
/// device: this is the clock of whoever plays. Returns the bytes taken, or a negative value on a
/// dead stream.
int ms_sendDataToAudPlayback(int handle, const void* data, unsigned int bytes);
/// Lets what waits be heard to its end, then ends the stream.
int ms_closeAudPlayback(int handle);
/// Lets the stream be silent at once: what waits is dropped but for 5 ms, which fade out, and what
/// is sent from now on is taken and not heard. Does nothing where no device sounds. Never blocks,
/// also while another thread sends.
int ms_dropAudPlayback(int handle);
int ms_setOutputAudioPath(int device, int path);

/// Tones exclude a playback stream, and the reverse. `ms_startTone` takes 0 to 34; the tone sounds
/// until its session is stopped or closed. A session that is left open stays.
int ms_createToneSession(int kind);
int ms_realizeSession(int session);
int ms_allocateSession(int session);
int ms_startTone(int session, int tone, int mode);
int ms_stopSession(int session);
int ms_closeSession(int session);

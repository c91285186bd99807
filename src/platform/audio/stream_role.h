#pragma once

namespace platform::audio {

/// Names the process to PulseAudio and PipeWire, and gives its streams the role of accessibility:
/// a desktop turns down or mutes other roles where somebody calls. Both are reached through ALSA,
/// whose plugins read this from the environment; what is set there already is left as it is.
/// Before the first thread starts.
void announceStreamRole();

}  // namespace platform::audio

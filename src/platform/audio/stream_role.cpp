#include "platform/audio/stream_role.h"

#include <cstdlib>
#include <string>

namespace platform::audio {

void announceStreamRole() {
  // Of two entries of one name PulseAudio takes the later: the user's own stand behind ours.
  std::string properties =
      "media.role=a11y application.icon_name=preferences-desktop-accessibility";
  if (const char* own = std::getenv("PULSE_PROP")) properties.append(" ").append(own);
  setenv("PULSE_PROP", properties.c_str(), 1);
  // ALSA's plugin gives a name after the executable, which no other variable replaces.
  setenv("PULSE_PROP_OVERRIDE_application.name", "Quillspeak", 0);
  setenv("PIPEWIRE_ALSA", "{ media.role=Accessibility application.name=Quillspeak }", 0);
}

}  // namespace platform::audio

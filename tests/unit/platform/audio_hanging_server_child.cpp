// A process that hangs its sound server (argument: its process id) while a stream is open, and must
// come to its end all the same. Status 0 where it does.

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/media_server.h"

int main(int count, char** arguments) {
  if (count != 2) return 2;
  ms_start();
  const int handle = ms_openAudPlayback(2);
  const std::vector<std::int16_t> sound(4800, 1);
  if (ms_sendDataToAudPlayback(handle, sound.data(), 9600) != 9600) return 3;
  kill(std::stoi(arguments[1]), SIGSTOP);
  return ms_stop();
}

// A program that does what the tests' preloaded library watches.

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include <flite/flite.h>

extern "C" cst_voice* register_cmu_us_slt(const char* folder);

namespace {

void log() {
  openlog("quillspeak", 0x49, LOG_LOCAL0);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  syslog(LOG_INFO, "masked");
  syslog(LOG_NOTICE, "a line\n\tanother %d\n", 7);
  syslog(LOG_LOCAL0 | LOG_ERR, "with a facility");
  syslog(LOG_WARNING, "%s", std::string(20000, 'x').c_str());
}

void files() {
  std::FILE* file = std::fopen("/tmp/test.rwb", "w");
  std::fputs("fopen", file);
  std::fclose(file);
  const int descriptor = open("/tmp/test.wav", O_WRONLY | O_CREAT | O_NOFOLLOW, 0600);
  if (write(descriptor, "open", 4) != 4) std::abort();
  close(descriptor);
  std::ofstream("/usr/mbin/data/rt/error_mono.raw") << "ofstream";
}

std::vector<short> speech() {
  cst_wave* wave = flite_text_to_wave("noise", register_cmu_us_slt(nullptr));
  std::vector<short> samples(wave->samples, wave->samples + wave->num_samples);
  delete_wave(wave);
  return samples;
}

void noise() {
  flite_init();
  const std::vector<short> once = speech();
  const std::vector<short> twice = speech();
  const auto sum = std::accumulate(once.begin(), once.end(), 0U, [](unsigned all, short sample) {
    return all * 31U + static_cast<unsigned short>(sample);
  });
  std::printf("%s %08x\n", once == twice ? "equal" : "different", sum);
}

}  // namespace

int main(int, char** arguments) {
  const std::string subject = arguments[1];
  if (subject == "log") log();
  if (subject == "files") files();
  if (subject == "rand") noise();
  return 0;
}

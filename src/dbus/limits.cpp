#include "dbus/limits.h"

#include "tts/utterance_pieces.h"

namespace qs_ns {

// The bus library keeps the pointer of an error's text, hence the constants.
static_assert(kMaxTextWeight == 4096 && kMaxRequestWeight == 32768 && kMaxTexts == 64 &&
                  kMaxRequestsWaiting == 64 && kMaxConversionWeight == 16384 &&
                  kMaxConversions == 16,
              "the sentences below name these numbers");

const char* textCountLimitBroken(std::size_t texts) {
  if (texts <= kMaxTexts) return nullptr;
  return "a play request may hold at most 64 texts; send the rest in another request";
}

const char* playLimitBroken(const std::vector<std::string>& texts, int requestsWaiting) {
  if (requestsWaiting >= kMaxRequestsWaiting) {
    return "64 requests wait already, the most that may; try again when some have been played";
  }
  std::size_t total = 0;
  for (const std::string& text : texts) {
    // A text weighs at least its bytes; one of megabytes is not weighed on the bus thread.
    const std::size_t weight = text.size() > kMaxTextWeight ? text.size() : textWeight(text);
    if (weight > kMaxTextWeight) {
      return "one text may weigh at most 4096 (1 a letter, 4 a spelled one, 6 a digit or symbol); "
             "split it";
    }
    total += weight;
  }
  if (total > kMaxRequestWeight) {
    return "the texts of a play request may weigh at most 32768 together (1 a letter, 4 a spelled "
           "one, 6 a digit or symbol); send the rest in another request";
  }
  return nullptr;
}

const char* conversionLimitBroken(const std::string& text, std::size_t running) {
  if (running >= kMaxConversions) {
    return "16 conversions are under way, the most that may; try again when one has been answered";
  }
  if (text.size() > kMaxConversionWeight || textWeight(text) > kMaxConversionWeight) {
    return "the text of a conversion may weigh at most 16384 (1 a letter, 4 a spelled one, 6 a "
           "digit or symbol); split it";
  }
  return nullptr;
}

}  // namespace qs_ns

#include "tts/utf8.h"

#include <algorithm>
#include <iterator>

namespace qs_ns {

namespace {

struct Lead {
  unsigned char first;
  unsigned char last;
  std::size_t bytes;
  // The second byte's range, narrower where a shorter form, a surrogate or more than U+10FFFF would
  // hide; all later ones lie in 80 to BF.
  unsigned char secondFrom;
  unsigned char secondTo;
};

constexpr Lead kLeads[] = {
    {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF}, {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF}, {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

bool continues(const Lead& lead, std::size_t index, unsigned char byte) {
  if (index == 1) return byte >= lead.secondFrom && byte <= lead.secondTo;
  return byte >= 0x80 && byte <= 0xBF;
}

}  // namespace

Utf8Unit firstUtf8Unit(std::string_view text) {
  const auto byteAt = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char byte = byteAt(0);
  if (byte < 0x80) return {1, true};
  const auto* lead = std::find_if(std::begin(kLeads), std::end(kLeads), [byte](const Lead& l) {
    return byte >= l.first && byte <= l.last;
  });
  if (lead == std::end(kLeads)) return {1, false};
  std::size_t length = 1;
  while (length < lead->bytes && length < text.size() && continues(*lead, length, byteAt(length)))
    ++length;
  return {length, length == lead->bytes};
}

}  // namespace qs_ns

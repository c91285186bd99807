#include "tts/utterance_pieces.h"

#include <algorithm>

#include "tts/utf8.h"

namespace qs_ns {

namespace {

constexpr std::size_t kPlainWeight = 1;
constexpr std::size_t kSymbolWeight = 6;
constexpr std::size_t kSpelledWeight = 4;

enum class Kind { blank, vowel, consonant, punctuation, symbol };

struct Character {
  Kind kind;
  std::size_t bytes;
};

// The voice tries to say a token with a y as a word ("rhythm", "ytr"), as it does with the others.
constexpr std::string_view kVowels = "aeiouyAEIOUY";
// What the voice is silent about; it has a word for every other one in ASCII.
constexpr std::string_view kPunctuation = "!\"'(),-.:;<>?[]`{}";

constexpr bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

Kind kindOf(char c) {
  if (isBlank(c)) return Kind::blank;
  if (kVowels.find(c) != std::string_view::npos) return Kind::vowel;
  if (isLetter(c)) return Kind::consonant;
  if (kPunctuation.find(c) != std::string_view::npos) return Kind::punctuation;
  return Kind::symbol;
}

Character firstCharacter(std::string_view text) {
  return {kindOf(text[0]), firstUtf8Unit(text).bytes};
}

/// The weight of a text that grows by a character at a time. It can shrink while a token grows: the
/// first vowel makes a word of what would have been spelled.
class Scale {
 public:
  void add(Kind kind) {
    if (kind == Kind::blank) endToken();
    if (kind == Kind::vowel) spelled = false;
    if (kind == Kind::vowel || kind == Kind::consonant)
      ++letters;
    else
      settled += kind == Kind::symbol ? kSymbolWeight : kPlainWeight;
  }

  std::size_t weight() const {
    return settled + letters * (spelled ? kSpelledWeight : kPlainWeight);
  }
  /// The weight does not fall below this whatever follows.
  std::size_t leastWeight() const { return settled + letters * kPlainWeight; }

 private:
  void endToken() {
    settled = weight();
    letters = 0;
    spelled = true;
  }

  std::size_t settled = 0;
  std::size_t letters = 0;  // of the token that is growing
  bool spelled = true;
};

/// Where a piece could end, best last: each the latest place of its kind, 0 for none.
struct Cuts {
  std::size_t character = 0;
  std::size_t word = 0;
  std::size_t clause = 0;
  std::size_t sentence = 0;

  void noteTokenEnd(std::size_t at, char mark) {
    word = at;
    if (mark == ',' || mark == ';' || mark == ':') clause = at;
    if (mark == '.' || mark == '!' || mark == '?') sentence = at;
  }

  std::size_t best() const {
    for (const std::size_t cut : {sentence, clause, word})
      if (cut != 0) return cut;
    return character;
  }
};

/// What a token ends with, behind whose closing quotes and brackets a sentence may have ended.
char markAfter(char mark, char next) {
  constexpr std::string_view kClosers = "\"')]}";
  return kClosers.find(next) != std::string_view::npos ? mark : next;
}

/// How long the first piece of `text` is, which neither begins nor ends with a blank. Looks at no
/// more than `maxWeight` + 1 characters, so that all pieces together take linear time.
std::size_t firstPieceLength(std::string_view text, std::size_t maxWeight) {
  Scale scale;
  Cuts cuts;
  char mark = ' ';
  std::size_t at = 0;
  while (at < text.size() && scale.leastWeight() <= maxWeight) {
    const Character next = firstCharacter(text.substr(at));
    if (next.kind == Kind::blank) {
      if (mark != ' ' && scale.weight() <= maxWeight) cuts.noteTokenEnd(at, mark);
      mark = ' ';
    } else {
      mark = markAfter(mark == ' ' ? '\0' : mark, text[at]);
    }
    scale.add(next.kind);
    at += next.bytes;
    if (scale.weight() <= maxWeight) cuts.character = at;
  }
  if (cuts.character == text.size()) return text.size();
  return std::max(cuts.best(), firstCharacter(text).bytes);
}

std::string_view withoutOuterBlanks(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}

}  // namespace

std::size_t textWeight(std::string_view text) {
  Scale scale;
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    scale.add(next.kind);
    text.remove_prefix(next.bytes);
  }
  return scale.weight();
}

std::vector<std::string_view> cutIntoPieces(std::string_view text, std::size_t maxWeight) {
  if (textWeight(text) <= maxWeight) return {text};
  std::vector<std::string_view> pieces;
  std::string_view rest = withoutOuterBlanks(text);
  while (!rest.empty()) {
    const std::size_t length = firstPieceLength(rest, maxWeight);
    pieces.push_back(rest.substr(0, length));
    rest = withoutOuterBlanks(rest.substr(length));
  }
  if (pieces.empty()) pieces.push_back(text.substr(0, maxWeight));
  return pieces;
}

}  // namespace qs_ns

#include "tts/utterance_pieces.h"

#include <algorithm>
#include <initializer_list>

#include "tts/sentence_end.h"
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

/// Where a piece could end; 0 for nowhere.
struct Cuts {
  std::size_t character = 0;
  std::size_t word = 0;
  std::size_t clause = 0;
  std::size_t sentence = 0;
  // And of these:
  std::size_t firstSentence = 0;
  std::size_t lightClause = 0;    // the last one before the piece grows heavy for speech
  std::size_t lightSentence = 0;  // likewise

  void noteTokenEnd(std::size_t at, std::size_t weight, bool endsClause, bool endsSentence) {
    const bool light = weight <= kLongSentenceWeight;
    word = at;
    if (endsClause) clause = at;
    if (endsClause && light) lightClause = at;
    if (endsSentence) sentence = at;
    if (endsSentence && light) lightSentence = at;
    if (endsSentence && firstSentence == 0) firstSentence = at;
  }

  /// The last place of the best kind.
  std::size_t best() const { return firstOf({sentence, clause, word, character}); }
  /// Where speech begins, and where it goes on.
  std::size_t bestOfStart() const {
    if (lightSentence != 0) return firstSentence;
    return firstOf({lightClause, firstSentence, best()});
  }
  std::size_t bestOfRest() const { return firstOf({lightSentence, firstSentence, best()}); }

 private:
  static std::size_t firstOf(std::initializer_list<std::size_t> cuts) {
    return *std::find_if(cuts.begin(), cuts.end() - 1, [](std::size_t cut) { return cut != 0; });
  }
};

/// Where the first piece of `text` could end, which neither begins nor ends with a blank. Looks at
/// no more than `maxWeight` + 1 characters, but for the blanks behind an abbreviation, so that all
/// pieces together take linear time.
Cuts cutsIn(std::string_view text, std::size_t maxWeight) {
  Scale scale;
  Cuts cuts;
  cuts.character = firstCharacter(text).bytes;
  std::size_t at = 0;
  std::size_t token = 0;
  bool heard = false;
  const auto noteTokenEnd = [&] {
    const std::string_view ended = text.substr(token, at - token);
    cuts.noteTokenEnd(at, scale.weight(), endsClause(ended),
                      heard && endsSentence(ended, text.substr(at)));
  };
  while (at < text.size() && scale.leastWeight() <= maxWeight) {
    const Character next = firstCharacter(text.substr(at));
    const bool isToken = next.kind != Kind::blank;
    if (!isToken && token != at && scale.weight() <= maxWeight) noteTokenEnd();
    if (isToken && next.kind != Kind::punctuation) heard = true;
    scale.add(next.kind);
    at += next.bytes;
    if (!isToken) token = at;
    if (scale.weight() <= maxWeight) cuts.character = at;
  }
  if (cuts.character == text.size()) cuts.noteTokenEnd(at, scale.weight(), false, true);
  return cuts;
}

/// Is there anything in it about which the voice is not silent?
bool sounds(std::string_view text) {
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    if (next.kind != Kind::blank && next.kind != Kind::punctuation) return true;
    text.remove_prefix(next.bytes);
  }
  return false;
}

std::string_view withoutOuterBlanks(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}

/// Cuts the first `length` bytes off `rest`, and the blanks behind them.
std::string_view takeFront(std::string_view& rest, std::size_t length) {
  const std::string_view front = rest.substr(0, length);
  rest = withoutOuterBlanks(rest.substr(length));
  return front;
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
    pieces.push_back(takeFront(rest, cutsIn(rest, maxWeight).best()));
  }
  if (pieces.empty()) pieces.push_back(text.substr(0, maxWeight));
  return pieces;
}

std::vector<std::string_view> cutForSpeech(std::string_view text, std::size_t maxWeight) {
  std::vector<std::string_view> pieces;
  std::string_view rest = withoutOuterBlanks(text);
  while (!rest.empty()) {
    const Cuts cuts = cutsIn(rest, maxWeight);
    const std::size_t length = pieces.empty() ? cuts.bestOfStart() : cuts.bestOfRest();
    const std::string_view piece = takeFront(rest, length);
    if (sounds(piece)) pieces.push_back(piece);
  }
  // One piece is the text as it is, and marks alone are in nobody's way.
  if (pieces.size() < 2 && textWeight(text) <= maxWeight) return {text};
  return pieces.empty() ? cutIntoPieces(text, maxWeight) : pieces;
}

}  // namespace qs_ns

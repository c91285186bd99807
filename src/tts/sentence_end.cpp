#include "tts/sentence_end.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "tts/utf8.h"

namespace qs_ns {

namespace {

constexpr std::string_view kAbbreviations[] = {
    "mr",   "mrs",  "ms",  "dr",  "prof", "st",   "mt",    "ft",   "jr",  "sr",
    "rev",  "hon",  "gen", "col", "capt", "lt",   "sgt",   "maj",  "gov", "sen",
    "rep",  "pres", "co",  "inc", "ltd",  "corp", "bros",  "dept", "est", "ave",
    "blvd", "rd",   "vs",  "etc", "cf",   "tel",  "approx"};
// Words of their own, or the ends of sentences, unless a number follows.
constexpr std::string_view kAbbreviationsBeforeNumbers[] = {
    "no",  "nos", "fig", "figs", "vol", "pp",  "ext", "ch",   "sec", "art", "jan",
    "feb", "mar", "apr", "jun",  "jul", "aug", "sep", "sept", "oct", "nov", "dec"};

constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
constexpr bool isLetter(char c) {
  return lowered(c) >= 'a' && lowered(c) <= 'z';
}

/// Without the quotes and brackets behind whose last mark it ended.
std::string_view withoutClosers(std::string_view token) {
  constexpr std::string_view kClosers = "\"')]}";
  while (!token.empty() && kClosers.find(token.back()) != std::string_view::npos)
    token.remove_suffix(1);
  return token;
}

bool startsWithNumber(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  return !text.empty() && isDigit(text.front());
}

template <typename Words>
bool contains(const Words& words, const std::string& word) {
  return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

/// Of a token before its full stop.
bool isAbbreviation(std::string_view token, std::string_view behind) {
  std::size_t letters = 0;
  while (letters < token.size() && isLetter(token[token.size() - 1 - letters]))
    ++letters;
  if (letters == 1) {
    // An initial, also the last of several ("e.g."), but not the end of "it's".
    constexpr std::string_view kBefore = ".-\"([{";
    return token.size() == 1 || kBefore.find(token[token.size() - 2]) != std::string_view::npos;
  }
  constexpr std::size_t kLongest = 6;
  if (letters == 0 || letters > kLongest) return false;
  std::string word(token.substr(token.size() - letters));
  std::transform(word.begin(), word.end(), word.begin(), lowered);
  return contains(kAbbreviations, word) ||
         (contains(kAbbreviationsBeforeNumbers, word) && startsWithNumber(behind));
}

}  // namespace

bool endsSentence(std::string_view token, std::string_view behind) {
  token = withoutClosers(token);
  if (token.empty()) return false;
  if (token.back() == '!' || token.back() == '?') return true;
  return token.back() == '.' && !isAbbreviation(token.substr(0, token.size() - 1), behind);
}

bool endsClause(std::string_view token) {
  token = withoutClosers(token);
  return !token.empty() && (token.back() == ',' || token.back() == ';' || token.back() == ':');
}

}  // namespace qs_ns

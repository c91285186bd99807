#include "tts/utterance_pieces.h"

#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tts/utf8.h"

namespace {

using namespace qs_ns;
using Pieces = std::vector<std::string_view>;

TEST(TextWeight, CountsWhatTheVoiceMakesOfEachCharacter) {
  const std::pair<const char*, std::size_t> rows[] = {
      {"", 0},
      {"Hello \t\r\n", 9},
      {"!\"'(),-.:;<>?[]`{}", 18},
      {"#$%&*+/=@\\^_|~", 84},
      {"7\x01\x7f", 18},
      {"TV tv a", 19},  // the first two are spelled
      {"bcdfa", 5},
      {"rhythm SKY", 10},
      {"b\xC3\xA9", 10},             // no vowel that the voice knows
      {"\xF0\x9F\x98\x80", 6},       // an emoji
      {"\xF0\x9F\x98\xC3\xA9", 12},  // one U+FFFD, then a good character
      {"\xED\xA0\x80", 18},          // half a surrogate pair: three U+FFFD
  };
  for (const auto& [text, weight] : rows)
    EXPECT_EQ(textWeight(text), weight) << text;
}

TEST(Pieces, AreCutAtSentencesElseClausesElseWordsElseCharacters) {
  struct Row {
    const char* text;
    Pieces pieces;
  };
  const Row rows[] = {
      {"", {""}},
      {"  a text of six ", {"  a text of six "}},
      {"One. Two! Three? Four five", {"One. Two! Three?", "Four five"}},
      {"One, two. Three; four: five", {"One, two.", "Three; four: five"}},
      {"One, two; three four five", {"One, two;", "three four five"}},
      {"He said \"no.\" Then he ran", {"He said \"no.\"", "Then he ran"}},
      {"  one   two   \n\t  three four five  ", {"one   two", "three four five"}},
      {"a aaaaaaaaaaaaaaaaaaaaaaa", {"a", "aaaaaaaaaaaaaaaaaaaa", "aaa"}},
      {"\xC3\xA9\xC3\xA9\xE2\x82\xAC\xC3\xA9", {"\xC3\xA9\xC3\xA9\xE2\x82\xAC", "\xC3\xA9"}},
      // The vowel at its end makes a word of the second token, the third is spelled.
      {"so bcdfghjklmnpqra bcdfgh", {"so bcdfghjklmnpqra", "bcdfg", "h"}},
      {"                         ", {"                    "}},
  };
  for (const Row& row : rows)
    EXPECT_EQ(cutIntoPieces(row.text, 20), row.pieces) << row.text;
}

std::string withoutBlanks(std::string_view text) {
  std::string rest(text);
  std::erase_if(rest, isBlank);
  return rest;
}

TEST(Pieces, LoseNothingAndOutweighNothingWhateverTheText) {
  const std::string_view parts[] = {"a",        "bcd",      "Word", " ", "  ", "\n",
                                    ". ",       "?! ",      ", ",   ".", "7",  "1234",
                                    "\xC3\xA9", "\xE2\x82", "\xFF", "@"};
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (auto i = random() % 100; i > 0; --i)
      text += parts[random() % std::size(parts)];
    const std::size_t maxWeight = 6 + random() % 60;
    SCOPED_TRACE(testing::PrintToString(text) + " " + std::to_string(maxWeight));

    std::set<const char*> starts;
    for (std::string_view rest = text; !rest.empty(); rest.remove_prefix(firstUtf8Unit(rest).bytes))
      starts.insert(rest.data());
    std::string joined;
    for (const std::string_view piece : cutIntoPieces(text, maxWeight)) {
      ASSERT_EQ(piece.empty(), text.empty());
      ASSERT_LE(textWeight(piece), maxWeight);
      ASSERT_TRUE(text.empty() || starts.count(piece.data()) == 1) << "inside a character";
      joined += withoutBlanks(piece);
    }
    ASSERT_EQ(joined, withoutBlanks(text));
  }
}

}  // namespace

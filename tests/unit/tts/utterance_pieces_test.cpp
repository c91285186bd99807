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

TEST(Pieces, EndWithASentenceButNotWithAnAbbreviationOrAnInitial) {
  const std::pair<const char*, bool> rows[] = {
      {"It rains. It pours.", true},
      {"Go! Now.", true},
      {"Why? So.", true},
      {"He said \"no.\" Then", true},
      {"(It rains.) It pours.", true},
      {"Well... yes", true},
      {"Wait for 5. Go", true},
      {"It's five o'clock, isn't it's. So", true},
      {"Say no. Then go", true},
      {"Dr. Smith", false},
      {"MRS. Smith", false},
      {"Say \"St. Ives\"", false},
      {"J. S. Bach", false},
      {"see e.g. this", false},
      {"(i.e. that)", false},
      {"in the U.S. Army", false},
      {"about 3.5 litres", false},
      {"Room No. 5", false},
      {"on Jan.  5", false},
      {"a, b; c: d", false},
      {"mail a.b@c.de now", false},
      {"... so it is", false},
      {"It rains. ...", false},
      {"It rains. \" ) !", false},
  };
  for (const auto& [text, cut] : rows)
    EXPECT_EQ(cutForSpeech(text).size(), cut ? 2U : 1U) << text;
}

TEST(Pieces, OfSpeechBeginWithOneSentenceOrAClauseOfALongOneAndGoOnWithWholeSentences) {
  const std::string word = "word ";
  const auto words = [&](int count) {  // without a blank at the end
    std::string all;
    while (count-- > 0)
      all += word;
    return all.substr(0, all.size() - 1);
  };
  const std::string shortOne = words(4) + ".";  // weighs 20
  const std::string light = words(20) + ".";    // weighs 100
  const std::string clauses = words(4) + ", " + words(8) + ", " + words(20) + ".";
  const std::string heavy = words(30) + ".";
  const std::string endless = words(50) + ".";  // cut as if there were nobody to wait
  const struct {
    std::vector<std::string> sentences, pieces;
  } rows[] = {
      {{" " + light + " "}, {" " + light + " "}},
      {{heavy}, {heavy}},
      {{light, light}, {light, light}},
      {{shortOne, shortOne, shortOne, shortOne, shortOne},
       {shortOne, shortOne + " " + shortOne + " " + shortOne + " " + shortOne}},
      {{shortOne, light, shortOne}, {shortOne, light, shortOne}},
      {{shortOne, heavy, shortOne}, {shortOne, heavy, shortOne}},
      {{clauses}, {words(4) + ", " + words(8) + ",", words(20) + "."}},
      {{shortOne, clauses}, {shortOne, clauses}},
      {{shortOne, endless}, {shortOne, words(40), words(10) + "."}},
      {{"... Hello.", "...", "World!", "!", "?"}, {"... Hello.", "... World! ! ?"}},
      {{"Hello.", std::string(100, '.') + " " + std::string(150, '!')}, {"Hello."}},
  };
  for (const auto& row : rows) {
    std::string text;
    for (const std::string& sentence : row.sentences)
      text += (text.empty() ? "" : " ") + sentence;
    const Pieces pieces = cutForSpeech(text);
    EXPECT_EQ(std::vector<std::string>(pieces.begin(), pieces.end()), row.pieces) << text;
  }
}

// What lies between two pieces is silent, as what is left of the text is.
TEST(Pieces, LoseNothingAndOutweighNothingWhateverTheText) {
  const std::pair<decltype(&cutIntoPieces), const char*> cutters[] = {{cutIntoPieces, " \n"},
                                                                      {cutForSpeech, " \n.?!,"}};
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

    std::set<const char*> starts{text.data()};
    for (std::string_view rest = text; !rest.empty(); rest.remove_prefix(firstUtf8Unit(rest).bytes))
      starts.insert(rest.data());
    for (const auto& [cut, silent] : cutters) {
      const char* end = text.data();
      for (const std::string_view piece : cut(text, maxWeight)) {
        ASSERT_EQ(piece.empty(), text.empty());
        ASSERT_LE(textWeight(piece), maxWeight);
        ASSERT_EQ(starts.count(piece.data()), 1U) << "inside a character";
        ASSERT_GE(piece.data(), end);
        const std::string_view left(end, static_cast<std::size_t>(piece.data() - end));
        ASSERT_EQ(left.find_first_not_of(silent), std::string_view::npos);
        end = piece.data() + piece.size();
      }
      ASSERT_EQ(std::string_view(end).find_first_not_of(silent), std::string_view::npos);
    }
  }
}

}  // namespace

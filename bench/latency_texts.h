#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

/// In the daemon's list of phrases that it keeps ready.
inline constexpr char kStaticPhrase[] = "Ringtone";
inline constexpr char kWord[] = "Settings";

/// What is synthesised each time, since no cache can know it: every text has another word of eight
/// letters, and comes again only after many others. One thread.
class Texts {
 public:
  std::string word();
  /// Ten words.
  std::string sentence();

  struct Long {
    std::string all;  // a hundred words in ten sentences
    std::string firstSentence;
  };
  Long hundredWords();

  /// Words that sound like kWord, spelled in upper and lower case as no other before.
  std::string soundsLikeWord();

 private:
  std::size_t words = 0;
  std::size_t spellings = 0;
};

/// Speech without long pauses for more than ten seconds.
std::string steadySpeech();

/// A text as heavy as a conversion may be.
std::string heaviestConversion();

}  // namespace bench

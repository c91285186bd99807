#include "latency_texts.h"

#include <array>
#include <cctype>

#include "dbus/limits.h"

namespace bench {

namespace {

constexpr std::array kWords = {
    "Messages", "Contacts", "Calendar", "Keyboard", "Language", "Security", "Password", "Internet",
    "Download", "Pictures", "Services", "Speakers", "Schedule", "Favorite", "Reminder", "Location",
    "Software", "Hardware", "Terminal", "Document", "Original", "Personal", "Business", "Customer",
    "Delivery", "Distance", "Festival", "Material", "Medicine", "Midnight", "Mountain", "Neighbor",
    "Occasion", "Pleasure", "Practice", "Question", "Railroad", "Register", "Remember", "Resource",
    "Saturday", "Separate", "Shoulder", "Sunlight", "Thousand", "Together", "Tomorrow", "Training",
    "Umbrella", "Universe", "Vacation", "Velocity", "Weekdays", "Whenever", "Wireless", "Yourself"};

constexpr char kNineSentences[] =
    " The first one came this morning from your brother in London."
    " He would like to know when you will be home."
    " The second one is a question about the dinner tomorrow."
    " Please call the restaurant before noon and tell them everything."
    " The third one reminds you of the meeting on Monday."
    " Bring the papers that were left on the kitchen table."
    " The missed call was from a number without a name."
    " It rang for half a minute and left no message."
    " There is nothing else to be done about it now.";

}  // namespace

std::string Texts::word() {
  return kWords.at(words++ % kWords.size());
}

std::string Texts::sentence() {
  std::string varied = word();
  varied[0] = static_cast<char>(std::tolower(varied[0]));
  return "You have three new " + varied + " and one missed call today";
}

Texts::Long Texts::hundredWords() {
  const std::string first = sentence() + ".";
  return {first + kNineSentences, first};
}

std::string Texts::soundsLikeWord() {
  std::string spelled = kWord;
  ++spellings;
  for (std::size_t i = 1; i < spelled.size(); ++i)
    if ((spellings >> (i - 1) & 1U) != 0) spelled[i] = static_cast<char>(std::toupper(spelled[i]));
  return spelled;
}

std::string steadySpeech() {
  std::string text;
  while (text.size() < 180)
    text += "now we all may run along a low and narrow lane all alone ";
  return text;
}

std::string heaviestConversion() {
  std::string text;
  while (text.size() < qs_ns::kMaxConversionWeight)
    text += "You have three new messages and one missed call today. ";
  text.resize(qs_ns::kMaxConversionWeight);
  // A word cut in two may have lost its vowel, and would weigh more.
  for (std::size_t i = text.rfind(' '); i < text.size(); ++i)
    text[i] = ' ';
  return text;
}

}  // namespace bench

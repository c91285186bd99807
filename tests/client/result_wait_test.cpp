#include "result_wait.h"

#include <gtest/gtest.h>

namespace {

using qs_client::ResultWait;
using std::chrono::seconds;

TEST(ResultWait, AResultThatCameBeforeItsHandleIsNotLost) {
  ResultWait wait(seconds(10), {});
  wait.take(7, 1, {});
  EXPECT_EQ(wait.result(), std::nullopt);
  wait.setHandle(7);
  EXPECT_EQ(wait.result(), 1U);
}

TEST(ResultWait, OneBeforeOursPutsTheDeadlineOffAndOneBehindItEndsTheWait) {
  ResultWait wait(seconds(10), {});
  wait.setHandle(7);
  EXPECT_EQ(wait.deadline(), ResultWait::Time(seconds(10)));
  wait.take(6, 0, ResultWait::Time(seconds(4)));
  EXPECT_EQ(wait.deadline(), ResultWait::Time(seconds(14)));
  EXPECT_FALSE(wait.isPassedOver());
  wait.take(8, 1, ResultWait::Time(seconds(5)));
  EXPECT_TRUE(wait.isPassedOver());
  EXPECT_EQ(wait.deadline(), ResultWait::Time(seconds(14)));
  EXPECT_EQ(wait.result(), std::nullopt);
}

TEST(LongestSpeech, GrowsWithTextSlownessAndAlert) {
  const std::vector<std::string> text{std::string(200, 'a')};
  EXPECT_GE(qs_client::longestSpeech(text, 0, false), seconds(35)) << "a comma behind every word";
  EXPECT_EQ(qs_client::longestSpeech(text, 0, false), qs_client::longestSpeech(text, 1, false));
  EXPECT_LT(qs_client::longestSpeech(text, 5, false), qs_client::longestSpeech(text, 1, false));
  EXPECT_GT(qs_client::longestSpeech(text, 0, true), qs_client::longestSpeech(text, 0, false));
}

}  // namespace

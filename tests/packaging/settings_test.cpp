// The settings that are shipped are those without a file, but for the feature, which is on.

#include <array>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "platform/process_services.h"
#include "platform/property_store.h"

namespace {

TEST(ShippedSettings, AreThoseThatTheyAreSaidToBe) {
  setenv("QUILLSPEAK_PROPERTIES", QS_PACKAGING "/properties.conf", 1);
  setenv("QUILLSPEAK_TRACE", QS_PACKAGING "/trace.conf", 1);
  bool enabled = false;
  EXPECT_EQ(getBooleanProperty("device.accessibility.qs_enabled", &enabled), 0);
  EXPECT_TRUE(enabled);
  for (const auto& [key, expected] :
       {std::pair("device.accessibility.qs_speed", 3), {"device.feature.dbus-automation", 0}}) {
    int value = -1;
    EXPECT_EQ(getIntegerProperty(key, &value), 0) << key;
    EXPECT_EQ(value, expected) << key;
  }
  for (const auto& [key, expected] : {std::pair("qs_voice", "slt"), {"qs_cache", "enable"}}) {
    std::array<char, 16> value{};
    EXPECT_EQ(getStringProperty(key, value.data(), value.size()), 0) << key;
    EXPECT_STREQ(value.data(), expected);
  }
  TraceValues trace{-1, -1, -1, -1, -1};
  settrcvalues("quillspeak", &trace);
  const TraceValues expected{6, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(&trace, &expected, sizeof trace), 0);
  unsetenv("QUILLSPEAK_PROPERTIES");
  unsetenv("QUILLSPEAK_TRACE");
}

}  // namespace

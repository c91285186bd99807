#pragma once

#include <array>

namespace qs_ns {

inline constexpr int kPhraseCount = 51;

/// The interface's frequent texts, in the order in which they are built. A text to speak is
/// compared with them byte for byte.
// NOLINTNEXTLINE(readability-identifier-naming): named as the caches are, which are no constants
extern const std::array<const char*, kPhraseCount> cachePhraseList;

}  // namespace qs_ns

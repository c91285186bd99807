#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qs_ns {

// What one client may ask for. Without limits a single call could take all memory (49 KB for each
// character) or hold the voice for hours. Weights are those of `textWeight`.

inline constexpr std::size_t kMaxTextWeight = 4096;
inline constexpr std::size_t kMaxRequestWeight = 32768;
inline constexpr std::size_t kMaxTexts = 64;
inline constexpr int kMaxRequestsWaiting = 64;
inline constexpr std::size_t kMaxConversionWeight = 16384;
inline constexpr std::size_t kMaxConversions = 16;

/// Null where so many texts are within the limit, else a sentence that names it; a constant that
/// lives for ever.
const char* textCountLimitBroken(std::size_t texts);

/// The same for the rest of what is asked of a play request.
const char* playLimitBroken(const std::vector<std::string>& texts, int requestsWaiting);

/// The same for a conversion, with `running` others not answered yet.
const char* conversionLimitBroken(const std::string& text, std::size_t running);

}  // namespace qs_ns

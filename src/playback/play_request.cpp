#include "playback/play_request.h"

#include <atomic>
#include <random>
#include <utility>

namespace qs_ns {

namespace {

// A client may still hold a handle from before a restart; a start at random keeps its stop from
// hitting somebody else's request. In the lower half, the counter never comes round to 0.
std::uint64_t firstHandle() {
  std::random_device entropy;
  std::uniform_int_distribution<std::uint64_t> lowerHalf(1, ~std::uint64_t{0} >> 1);
  return lowerHalf(entropy);
}

std::uint64_t nextHandle() {
  static std::atomic<std::uint64_t> next{firstHandle()};
  return next.fetch_add(1);
}

}  // namespace

QS_PlayRequest::QS_PlayRequest(std::vector<std::string> texts, const char* alert,
                               std::int32_t requestParams, std::int32_t requestType,
                               std::int32_t requestFlags)
    : textToConvert(std::move(texts)),
      alertFile(alert),
      params(requestParams),
      type(requestType),
      flags(requestFlags),
      handle(nextHandle()) {}

}  // namespace qs_ns

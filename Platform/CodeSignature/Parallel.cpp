#include "CodeSignature/Parallel.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace platform::codesignature {

void forEachIndex(std::size_t count, const std::function<bool(std::size_t)>& body) {
  constexpr std::size_t maximumThreads = 8;
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    for (std::size_t i = next++; i < count; i = next++) {
      if (!body(i)) next = count;
    }
  };
  const std::size_t threads = std::min({count, std::size_t{std::thread::hardware_concurrency()}, maximumThreads});
  std::vector<std::jthread> helpers;
  try {
    while (helpers.size() + 1 < threads) helpers.emplace_back(work);
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): the threads there are do it all
  }
  work();
}

}  // namespace platform::codesignature

#pragma once

#include "Rehearsal/SystemCalls.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace fakes {

inline constexpr std::array fileErrors{ENOSPC, EIO, EACCES, EROFS, EMFILE};

/// Fails one of a work's system calls on files, counted from 0.
class Saboteur {
 public:
  Saboteur(std::size_t which, int with) : error(with), which_(which) {}

  /// The calls that only look something up are many; they may be spared.
  enum class Lookups { failToo, spared };

  void watch(const std::function<void()>& work, Lookups lookups = Lookups::failToo) {
    std::vector<int> numbers = rehearsal::fileSystemCalls();
    if (lookups == Lookups::spared) {
      std::erase_if(numbers, [](int number) {
        const std::string name = rehearsal::fileSystemCallName(number);
        return name.contains("stat") || name.contains("readlink") || name.contains("access");
      });
    }

    const auto judge = [this](const rehearsal::SystemCall& call) {
      // A sanitizer writes into pipes of its own to find out what memory may be read.
      if (rests || call.describe(call.arguments[0]).starts_with("pipe:") || calls_++ != which_) return 0;
      failed = fmt::format("{} {} with {}", rehearsal::fileSystemCallName(call.number), which_, strerrorname_np(error));
      return error;
    };
    ASSERT_TRUE(rehearsal::runSupervised(numbers, judge, work));
  }

  const int error;
  std::atomic<bool> rests = false;  // while something is done that is to succeed
  std::string failed;               // which call was made to fail; empty when the work ended before

 private:
  std::size_t which_;
  std::size_t calls_ = 0;
};

/// Has each call on files of a work fail, one at a time: with one error after the other, or each with all of them.
template <class Attempt>
void failEachCall(std::size_t errorsEach, const Attempt& attempt) {
  for (std::size_t which = 0;; ++which) {
    for (std::size_t i = 0; i < errorsEach; ++i) {
      Saboteur saboteur(which, fileErrors.at((which + i) % fileErrors.size()));
      attempt(saboteur);
      if (saboteur.failed.empty() || testing::Test::HasFatalFailure()) {
        EXPECT_GT(which, 2U);
        return;
      }
    }
  }
}

}  // namespace fakes

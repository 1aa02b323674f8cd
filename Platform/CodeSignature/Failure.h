#pragma once

#include "Platform/NSError.h"
#include "Platform/SecCode.h"

#include <expected>
#include <string>
#include <string_view>

namespace platform::codesignature {

/// Keys of the user info (CSCommon.h); their values here are texts.
inline constexpr std::string_view kSecCFErrorArchitecture = "SecCSArchitecture";
inline constexpr std::string_view kSecCFErrorResourceAdded = "SecCSResourceAdded";
inline constexpr std::string_view kSecCFErrorResourceAltered = "SecCSResourceAltered";
inline constexpr std::string_view kSecCFErrorResourceMissing = "SecCSResourceMissing";
inline constexpr std::string_view kSecCFErrorResourceRecursive = "SecCSResourceRecursive";
inline constexpr std::string_view kSecCFErrorPath = "SecComponentPath";

/// Why code is not valid: the status, and what the error object says beyond it.
struct Failure {
  OSStatus status;
  NSError::UserInfo userInfo;
};

template <class T>
using Result = std::expected<T, Failure>;

[[nodiscard]] inline std::unexpected<Failure> failed(OSStatus status) {
  return std::unexpected(Failure{status, {}});
}
[[nodiscard]] inline std::unexpected<Failure> failed(OSStatus status, std::string_view key, std::string value) {
  return std::unexpected(Failure{status, {{std::string(key), std::move(value)}}});
}
/// The status of a failed system call.
[[nodiscard]] inline OSStatus statusOfErrno(int error) {
  return 100000 + error;
}

}  // namespace platform::codesignature

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace platform {

inline constexpr std::string_view NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view NSOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr std::string_view NSURLErrorDomain = "NSURLErrorDomain";

inline constexpr std::string_view NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view NSFilePathErrorKey = "NSFilePath";

/// Cocoa error codes this layer reports (FoundationErrors.h). "Reading" and "writing" are kinds of operation: the same
/// cause has a code in each.
enum CocoaErrorCode : std::int64_t {
  NSFileNoSuchFileError = 4,
  NSFileReadUnknownError = 256,
  NSFileReadNoPermissionError = 257,
  NSFileReadInvalidFileNameError = 258,
  NSFileReadNoSuchFileError = 260,
  NSFileReadUnsupportedSchemeError = 262,
  NSFileReadTooLargeError = 263,
  NSFileWriteUnknownError = 512,
  NSFileWriteNoPermissionError = 513,
  NSFileWriteInvalidFileNameError = 514,
  NSFileWriteFileExistsError = 516,
  NSFileWriteUnsupportedSchemeError = 518,
  NSFileWriteOutOfSpaceError = 640,
  NSFileWriteVolumeReadOnlyError = 642,
  NSPropertyListReadCorruptError = 3840,
};

/// The platform's error object: a domain, a code and a dictionary of further information. An immutable value; copies
/// share the dictionary. Any thread.
class NSError {
 public:
  using UserInfoValue = std::variant<std::string, std::shared_ptr<const NSError>>;
  using UserInfo = std::map<std::string, UserInfoValue, std::less<>>;

  NSError(std::string_view domain, std::int64_t code, UserInfo userInfo = {})
      : domain_(domain), code_(code), userInfo_(std::make_shared<const UserInfo>(std::move(userInfo))) {}

  [[nodiscard]] const std::string& domain() const { return domain_; }
  [[nodiscard]] std::int64_t code() const { return code_; }
  [[nodiscard]] const UserInfo& userInfo() const { return *userInfo_; }

  /// The error under NSUnderlyingErrorKey, or null when there is none.
  [[nodiscard]] const NSError* underlyingError() const;

  /// A copy of this error that names `underlying` as its cause.
  [[nodiscard]] NSError withUnderlying(NSError underlying) const;

  /// The textual description of the user-info dictionary: keys in byte order, "[:]" when empty.
  [[nodiscard]] std::string userInfoDescription() const;

 private:
  std::string domain_;
  std::int64_t code_;
  std::shared_ptr<const UserInfo> userInfo_;
};

}  // namespace platform

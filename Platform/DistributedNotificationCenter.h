#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// What a process of this user tells all the others. Anybody may post any name.
struct DistributedNotification {
  std::string name;
  std::optional<std::string> object;  // what the sender calls itself
};

/// Hands notifications from process to process. Main thread only; observers are called on it, from the main run loop.
///
/// Nothing is kept: what is posted while an observer is away or cannot keep up is lost, and nobody learns of it.
/// Notifications of one poster come in order. Left out of the real thing: user information, and observing the posts of
/// one sender or of every name.
class DistributedNotificationCenter {
 public:
  using Callback = std::function<void(const DistributedNotification&)>;

  /// The only one there is here: nothing is ever held back or coalesced.
  enum class SuspensionBehavior { deliverImmediately = 4 };

  virtual ~DistributedNotificationCenter() = default;

  /// Calls `callback` for every notification with just this name, this process's own included, whoever sends it.
  /// `observer` only tells whose registration this is; each registration delivers by itself.
  virtual void addObserver(const void* observer, std::string_view name, SuspensionBehavior suspensionBehavior,
                           Callback callback) = 0;

  /// Ends all registrations of the observer: none of its callbacks is called any more. Safe from inside one of them,
  /// and for an observer that has none.
  virtual void removeObserver(const void* observer) = 0;

  virtual void post(std::string_view name, const std::optional<std::string>& object) = 0;
};

}  // namespace platform

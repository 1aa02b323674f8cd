#pragma once

#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Platform/URL.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane {

/// The emergency update list: which installed versions of the main application, on which systems and processors, are to
/// be repaired, and how. Made only by EmergencyUpdateListParser.
struct EmergencyUpdateList {
  struct Update {
    enum class DevicePlatform { arm64, x86_64, unknown };

    /// What to do where an entry matches. `Unknown` is what becomes of an action that cannot be used.
    struct Install {
      platform::URL url;  // of the disk image
      bool operator==(const Install&) const = default;
    };
    struct DryRun {
      bool operator==(const DryRun&) const = default;
    };
    struct Unknown {
      bool operator==(const Unknown&) const = default;
    };
    using Action = std::variant<Install, DryRun, Unknown>;

    std::string date;  // free text; takes no part in matching
    std::vector<std::string> appVersions;
    std::optional<std::vector<std::string>> osVersions;
    std::optional<std::vector<DevicePlatform>> devicePlatforms;
    std::vector<Action> actions;
    bool operator==(const Update&) const = default;
  };

  std::string version;  // a label; nobody interprets it
  std::vector<Update> updates;
  bool operator==(const EmergencyUpdateList&) const = default;
};

/// "arm64", "x86_64", "unknown".
std::string_view rawValue(EmergencyUpdateList::Update::DevicePlatform platform);

/// Turns the downloaded bytes into the list, or into nothing. Stateless; any thread.
///
/// Strict about types and exact about keys; unknown keys are ignored, null means absent only for the two optional
/// fields. A malformed action object or an unheard-of platform becomes `unknown`; anything else that is wrong rejects
/// the whole document. Decided here: of a key that stands twice in an object the first counts; a document nested deeper
/// than 512 levels or holding more than a million list elements is rejected, and text of more than 64 KiB is no URL, so
/// that memory stays within a small multiple of the document; what else is a URL is said by platform::URL::parse.
/// Values that nobody reads must be JSON too, and their numbers within the widest floating-point type's range, which is
/// about 1e4932.
class EmergencyUpdateListParser {
 public:
  explicit EmergencyUpdateListParser(EmergencyUpdateServiceLogger logger) : logger_(logger) {}

  /// `data` is UTF-8 JSON. Absent, after one `error` record, when it is not an acceptable document.
  [[nodiscard]] std::optional<EmergencyUpdateList> parse(std::string_view data) const;

 private:
  EmergencyUpdateServiceLogger logger_;
};

}  // namespace corvane

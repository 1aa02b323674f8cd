#pragma once

#include "CodeSignature/Failure.h"
#include "Platform/PropertyList.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform::codesignature {

/// The rules of a resource seal: which files of a bundle are sealed, and how. Patterns are POSIX extended regular
/// expressions over the path below the sealed root, by bytes whatever the locale. Compiling one takes bounded memory,
/// matching it time in proportion to the path, whatever it says.
class ResourceRules {
 public:
  struct Verdict {
    double weight = 1;
    bool omit = false;
    bool optional = false;
    bool nested = false;
  };

  /// errSecCSResourceRulesInvalid for a rule of another kind, for a pattern that does not compile or is too large, and
  /// for what no rule needs: intervals, collating elements, a closing parenthesis without its opening one, and what
  /// POSIX gives no meaning: escapes of letters and digits (back-references among them) and of ``< > ` '``, and a
  /// repetition first or behind an anchor, a bar or an opening parenthesis.
  static Result<ResourceRules> parse(const PropertyList& rules);

  ResourceRules(ResourceRules&&) noexcept;
  ResourceRules& operator=(ResourceRules&&) noexcept;
  ~ResourceRules();

  /// The matching rule of the highest weight, of several the first that does not omit; absent when none matches.
  [[nodiscard]] std::optional<Verdict> verdict(const std::string& path) const;

 private:
  struct Rule;
  ResourceRules();
  std::vector<std::unique_ptr<Rule>> rules_;
};

}  // namespace platform::codesignature

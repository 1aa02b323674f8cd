#pragma once

#include "CodeSignature/Bytes.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace platform::codesignature {

/// What a value found in a certificate or a dictionary is compared with. Absent values meet only `absent`.
struct RequirementMatch {
  enum class Operation {
    exists,
    absent,
    equal,
    contains,
    beginsWith,
    endsWith,
    less,
    greater,
    lessOrEqual,
    greaterOrEqual,
  };
  Operation operation = Operation::exists;
  std::string value;
  /// Whether `value` is a time ("20240131235959Z") and only times compare with it.
  bool isTimestamp = false;
};

/// A requirement as a tree. Immutable; any thread.
class RequirementExpression {
 public:
  using List = std::vector<RequirementExpression>;

  struct Constant {
    bool value;
  };
  struct All {
    List terms;
  };
  struct Any {
    List terms;
  };
  struct Not {
    List term;  ///< just one
  };
  struct Identifier {
    std::string value;
  };
  struct CodeDirectoryHash {
    Bytes value;
  };
  struct PlatformNumber {
    std::int32_t value;
  };
  /// The vendor's own software (`anchor apple`), or anything under the vendor's root (`anchor apple generic`).
  struct AnchorApple {
    bool generic;
  };
  /// Certificates are counted from the leaf (0) up; −1 is the root, −2 the one it issued.
  struct CertificateHash {
    std::int32_t slot;
    Bytes sha1;
  };
  struct CertificateField {
    enum class Kind { subject, extension, policy, timestamp };
    std::int32_t slot;
    Kind kind;
    std::string name;  ///< an attribute's name for Kind::subject, else an object identifier in numbers
    RequirementMatch match;
  };
  struct InfoPlistValue {
    std::string key;
    RequirementMatch match;
  };
  struct EntitlementValue {
    std::string key;
    RequirementMatch match;
  };
  /// Needs a service of the platform that is not here (trust settings, notarization, named anchors): never true.
  struct Unsupported {};

  using Node = std::variant<Constant, All, Any, Not, Identifier, CodeDirectoryHash, PlatformNumber, AnchorApple,
                            CertificateHash, CertificateField, InfoPlistValue, EntitlementValue, Unsupported>;

  explicit RequirementExpression(Node node) : node_(std::move(node)) {}
  [[nodiscard]] const Node& node() const { return node_; }

 private:
  Node node_;
};

/// Compiles a requirement text. The error is a message for people: where, and what was not expected there.
///
/// Stricter than the platform's compiler where that guesses: numbers beyond 32 bits and malformed object identifiers do
/// not compile, nor does nesting deeper than 200. Clauses with the path of a certificate file do not compile, as on a
/// machine without that file.
[[nodiscard]] std::expected<std::shared_ptr<const RequirementExpression>, std::string> compileRequirement(
    std::string_view text);

}  // namespace platform::codesignature

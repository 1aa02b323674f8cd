#pragma once

#include "Errors/AnyError.h"

#include <array>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane {

/// A value to be kept from the remote log: see hidden().
template <class T>
struct Hidden {
  const T& value;
};

/// Makes a private segment: "<private>" in the redacted rendering, in clear in the full one.
template <class T>
Hidden<T> hidden(const T& value) {
  return {value};
}

/// What a log call says: literal text with "{}" where a value goes, and the values. It only refers to its values, so it
/// lives no longer than the log call it is written in, and a record that nobody wants costs no more than a few stores.
///
/// Without values it is a plain literal. With values it is a list of segments in writing order: the literal pieces
/// around the holes, empty ones included, and the values between them. That each value has its hole is checked when
/// compiling.
class EmergencyUpdateServiceLogMessage {
 public:
  struct Private {
    std::string text;
    bool operator==(const Private&) const = default;
  };
  /// One segment: plain text, an error, or a private text.
  using Value = std::variant<std::string, AnyError, Private>;
  struct StringInterpolation {
    std::vector<Value> values;
    std::size_t literalCapacity;  // bytes of all literal pieces
  };

  /// A literal with as many holes as there are values.
  template <std::size_t Holes>
  struct Pattern {
    // NOLINTNEXTLINE(google-explicit-constructor): a message is written as {"text {}", value}
    consteval Pattern(const char* literal) : text(literal) {
      std::size_t holes = 0;
      for (std::size_t at = text.find("{}"); at != std::string_view::npos; at = text.find("{}", at + 2)) ++holes;
      if (holes != Holes) throw "the pattern has not as many {} as there are values";
    }
    std::string_view text;
  };

  static constexpr std::size_t maximumValues = 6;

  /// The empty message.
  EmergencyUpdateServiceLogMessage() = default;

  template <class... Values>
  EmergencyUpdateServiceLogMessage(Pattern<sizeof...(Values)> pattern,  // NOLINT(google-explicit-constructor)
                                   const Values&... values)
      : pattern_(pattern.text), count_(sizeof...(Values)), arguments_{Argument(values)...} {
    static_assert(sizeof...(Values) <= maximumValues);
  }
  EmergencyUpdateServiceLogMessage(const EmergencyUpdateServiceLogMessage&) = delete;
  EmergencyUpdateServiceLogMessage& operator=(const EmergencyUpdateServiceLogMessage&) = delete;
  ~EmergencyUpdateServiceLogMessage() = default;

  [[nodiscard]] std::optional<std::string_view> stringLiteral() const;
  [[nodiscard]] std::optional<StringInterpolation> stringInterpolation() const;

  /// The redacted rendering, for what leaves the machine.
  [[nodiscard]] std::string description() const { return rendered(Privacy::redacted); }
  /// The same with private values in clear.
  [[nodiscard]] std::string fullRendering() const { return rendered(Privacy::shown); }

 private:
  enum class Privacy { redacted, shown };

  /// Refers to one value: a text, a number, or anything that is an error.
  class Argument {
   public:
    Argument() : Argument(std::string_view()) {}
    explicit Argument(std::string_view text) : kind_(Kind::text), text_(text) {}
    explicit Argument(const std::string& text) : Argument(std::string_view(text)) {}
    explicit Argument(const char* text) : Argument(std::string_view(text)) {}
    explicit Argument(std::signed_integral auto number) : kind_(Kind::integer), integer_(number) {}
    explicit Argument(std::unsigned_integral auto number) : kind_(Kind::natural), natural_(number) {}
    explicit Argument(bool) = delete;
    template <class E>
      requires ReflectedError<E> || std::same_as<E, AnyError> || std::same_as<E, platform::NSError>
    explicit Argument(const E& error)
        : kind_(Kind::error), error_{&error, [](const void* e) { return AnyError(*static_cast<const E*>(e)); }} {}
    template <class T>
    explicit Argument(const Hidden<T>& hidden) : Argument(hidden.value) {
      isPrivate_ = true;
    }

    [[nodiscard]] Value value() const;
    void appendTo(std::string& text, Privacy privacy) const;

   private:
    enum class Kind : std::uint8_t { text, integer, natural, error };
    struct ErrorReference {
      const void* value;
      AnyError (*erase)(const void*);
    };

    [[nodiscard]] std::string text() const;

    Kind kind_;
    bool isPrivate_ = false;
    union {
      std::string_view text_;
      std::int64_t integer_;
      std::uint64_t natural_;
      ErrorReference error_;
    };
  };

  [[nodiscard]] std::string rendered(Privacy privacy) const;

  /// Calls `literal` with each literal piece and `value` with each argument, in writing order.
  template <class OnLiteral, class OnValue>
  void forEachSegment(OnLiteral literal, OnValue value) const {
    std::string_view rest = pattern_;
    for (std::size_t i = 0; i < count_; ++i) {
      const std::size_t hole = rest.find("{}");
      literal(rest.substr(0, hole));
      value(arguments_[i]);
      rest.remove_prefix(hole + 2);
    }
    literal(rest);
  }

  std::string_view pattern_;
  std::size_t count_ = 0;
  std::array<Argument, maximumValues> arguments_;
};

}  // namespace corvane

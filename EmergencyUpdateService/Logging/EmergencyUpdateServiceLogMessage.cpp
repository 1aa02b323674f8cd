#include "Logging/EmergencyUpdateServiceLogMessage.h"

namespace corvane {

std::string EmergencyUpdateServiceLogMessage::Argument::text() const {
  switch (kind_) {
    case Kind::text:
      return std::string(text_);
    case Kind::integer:
      return std::to_string(integer_);
    case Kind::natural:
      return std::to_string(natural_);
    case Kind::error:
      break;
  }
  return error_.erase(error_.value).description();
}

EmergencyUpdateServiceLogMessage::Value EmergencyUpdateServiceLogMessage::Argument::value() const {
  if (isPrivate_) return Private{text()};
  if (kind_ == Kind::error) return error_.erase(error_.value);
  return text();
}

void EmergencyUpdateServiceLogMessage::Argument::appendTo(std::string& text, Privacy privacy) const {
  if (isPrivate_ && privacy == Privacy::redacted) {
    text += "<private>";
  } else if (kind_ == Kind::text) {
    text += text_;
  } else {
    text += this->text();
  }
}

std::optional<std::string_view> EmergencyUpdateServiceLogMessage::stringLiteral() const {
  if (count_ > 0 || pattern_.data() == nullptr) return std::nullopt;
  return pattern_;
}

std::optional<EmergencyUpdateServiceLogMessage::StringInterpolation>
EmergencyUpdateServiceLogMessage::stringInterpolation() const {
  if (count_ == 0) return std::nullopt;
  StringInterpolation interpolation{.values = {}, .literalCapacity = 0};
  forEachSegment(
      [&](std::string_view piece) {
        interpolation.values.emplace_back(std::string(piece));
        interpolation.literalCapacity += piece.size();
      },
      [&](const Argument& argument) { interpolation.values.push_back(argument.value()); });
  return interpolation;
}

std::string EmergencyUpdateServiceLogMessage::rendered(Privacy privacy) const {
  constexpr std::size_t roomForAValue = 8;
  std::string text;
  text.reserve(pattern_.size() + roomForAValue * count_);
  forEachSegment([&](std::string_view piece) { text += piece; },
                 [&](const Argument& argument) { argument.appendTo(text, privacy); });
  return text;
}

}  // namespace corvane

#pragma once

#include "Platform/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>

/// The contents of the elements of an XML property list that are no plain text. White space around them is no matter.
namespace platform::xml {

/// Decimal, or hexadecimal after "0x", with or without a sign; absent beyond -2^63 and 2^64-1.
[[nodiscard]] std::optional<PropertyList> integerFromText(std::string_view text);

/// As strtod reads it in the C locale, "nan" and "infinity" included, but for hexadecimal: beyond double
/// precision infinite, or zero.
[[nodiscard]] std::optional<PropertyList> realFromText(std::string_view text);

/// The shortest text that reads back as the same value; "nan", "+infinity", "-infinity".
[[nodiscard]] std::string textFromReal(double value);

/// ISO 8601 in UTC to the second ("2001-01-01T00:00:00Z"), in the Gregorian calendar of all times, with the years
/// -32767 to 32767.
[[nodiscard]] std::optional<PropertyList> dateFromText(std::string_view text);

/// A part of a second is dropped. Times beyond those years become the first or the last second of them, what is no
/// number the reference date.
[[nodiscard]] std::string textFromDate(PropertyList::Date date);

/// Base64 with padding; white space may stand anywhere.
[[nodiscard]] std::optional<PropertyList> dataFromBase64(std::string_view text);
[[nodiscard]] std::string base64FromData(const PropertyList::Data& data);

}  // namespace platform::xml

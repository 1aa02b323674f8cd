#include "Platform/XMLPropertyListScalars.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include <fmt/format.h>

namespace platform::xml {
namespace {

using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;

constexpr std::string_view whiteSpace = " \t\r\n";
constexpr std::string_view base64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr sys_seconds referenceDate = sys_days{year{2001} / 1 / 1};

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(whiteSpace);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

template <class Number, class... Form>
std::optional<Number> whole(std::string_view text, Form... form) {
  Number number{};
  const auto [stop, error] = std::from_chars(text.begin(), text.end(), number, form...);
  return error == std::errc() && stop == text.end() ? std::optional(number) : std::nullopt;
}

bool removePrefix(std::string_view& text, char prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

std::optional<PropertyList> integerFromText(std::string_view text) {
  text = trimmed(text);
  const bool isNegative = removePrefix(text, '-');
  if (!isNegative) removePrefix(text, '+');
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (isHexadecimal) text.remove_prefix(2);
  const auto magnitude = whole<std::uint64_t>(text, isHexadecimal ? 16 : 10);
  if (!magnitude) return std::nullopt;
  if (!isNegative) return PropertyList(*magnitude);
  constexpr std::uint64_t limit = std::uint64_t{1} << 63U;
  return *magnitude > limit ? std::nullopt : std::optional<PropertyList>(static_cast<std::int64_t>(0 - *magnitude));
}

std::optional<PropertyList> realFromText(std::string_view text) {
  text = trimmed(text);
  if (removePrefix(text, '+') && text.starts_with('-')) return std::nullopt;
  double value = 0;
  const auto [stop, error] = std::from_chars(text.begin(), text.end(), value);
  if (error == std::errc::invalid_argument || stop != text.end()) return std::nullopt;
  if (error == std::errc::result_out_of_range) value = std::strtod(std::string(text).c_str(), nullptr);
  return PropertyList(value);
}

std::string textFromReal(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
  std::array<char, 32> text{};
  return {text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr};
}

std::optional<PropertyList> dateFromText(std::string_view text) {
  text = trimmed(text);
  const bool isNegative = removePrefix(text, '-');
  const std::string_view yearDigits = text.substr(0, text.find('-'));
  const std::string_view rest = text.substr(yearDigits.size());
  constexpr std::string_view form = "-00-00T00:00:00Z";
  const auto fits = [](char c, char model) { return model == '0' ? c >= '0' && c <= '9' : c == model; };
  const auto years = whole<std::uint16_t>(yearDigits);
  if (!years || *years > 32767 || !std::ranges::equal(rest, form, fits)) return std::nullopt;
  const auto field = [rest](std::size_t at) { return *whole<unsigned>(rest.substr(at, 2)); };
  const std::chrono::year_month_day date{year{isNegative ? -int{*years} : int{*years}}, std::chrono::month{field(1)},
                                         std::chrono::day{field(4)}};
  const std::chrono::seconds time =
      std::chrono::hours{field(7)} + std::chrono::minutes{field(10)} + std::chrono::seconds{field(13)};
  if (!date.ok() || time >= std::chrono::days{1} || field(10) > 59 || field(13) > 59) return std::nullopt;
  return PropertyList(PropertyList::Date{static_cast<double>((sys_days{date} + time - referenceDate).count())});
}

std::string textFromDate(PropertyList::Date date) {
  constexpr sys_seconds earliest = sys_days{year::min() / 1 / 1};
  constexpr sys_seconds latest = sys_days{year::max() / 12 / 31} + std::chrono::days{1} - std::chrono::seconds{1};
  const double seconds = std::isnan(date.secondsSinceReferenceDate) ? 0 : std::floor(date.secondsSinceReferenceDate);
  const double bounded = std::clamp(seconds, static_cast<double>((earliest - referenceDate).count()),
                                    static_cast<double>((latest - referenceDate).count()));
  const sys_seconds instant = referenceDate + std::chrono::seconds{static_cast<std::int64_t>(bounded)};
  const auto day = std::chrono::floor<std::chrono::days>(instant);
  const std::chrono::year_month_day civil{day};
  const std::chrono::hh_mm_ss time{instant - day};
  const int years = int{civil.year()};
  return fmt::format("{}{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", years < 0 ? "-" : "", std::abs(years),
                     unsigned{civil.month()}, unsigned{civil.day()}, time.hours().count(), time.minutes().count(),
                     time.seconds().count());
}

std::optional<PropertyList> dataFromBase64(std::string_view text) {
  PropertyList::Data data;
  std::uint32_t group = 0;
  std::size_t digits = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (whiteSpace.contains(c)) continue;
    const std::size_t value = base64Digits.find(c);
    if (c == '=') ++padding;
    if (c != '=' && (value == std::string_view::npos || padding > 0)) return std::nullopt;
    group = (group << 6U) | (c == '=' ? 0U : static_cast<std::uint32_t>(value));
    if (++digits % 4 != 0) continue;
    if (padding > 2) return std::nullopt;
    for (std::size_t i = 0; i < 3 - padding; ++i) data.push_back(static_cast<std::uint8_t>(group >> (16 - (8 * i))));
  }
  return digits % 4 == 0 ? std::optional<PropertyList>(std::move(data)) : std::nullopt;
}

std::string base64FromData(const PropertyList::Data& data) {
  std::string text;
  for (std::size_t at = 0; at < data.size(); at += 3) {
    const std::size_t count = std::min<std::size_t>(3, data.size() - at);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i) group = (group << 8U) | (i < count ? data[at + i] : 0U);
    for (std::size_t i = 0; i < 4; ++i) text += i <= count ? base64Digits[(group >> (18 - (6 * i))) & 0x3FU] : '=';
  }
  return text;
}

}  // namespace platform::xml

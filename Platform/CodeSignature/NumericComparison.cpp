#include "CodeSignature/RequirementEvaluator.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace platform::codesignature {
namespace {

constexpr char32_t replacement = 0xFFFD;

/// Of a sequence of more than one byte, by its first.
std::size_t followingBytes(unsigned char first) {
  if (first >= 0xF0U) return 3;
  return first >= 0xE0U ? 2 : 1;
}

/// Reads one character; malformed bytes count as the replacement character, one each.
char32_t nextCharacter(std::string_view& rest) {
  const auto first = static_cast<unsigned char>(rest.front());
  rest.remove_prefix(1);
  if (first < 0x80U) return first;
  const std::size_t following = followingBytes(first);
  if (first < 0xC2U || first > 0xF4U || rest.size() < following) return replacement;
  char32_t character = first & (0x3FU >> following);
  for (std::size_t i = 0; i < following; ++i) {
    const auto next = static_cast<unsigned char>(rest[i]);
    if ((next & 0xC0U) != 0x80U) return replacement;
    character = character << 6U | (next & 0x3FU);
  }
  rest.remove_prefix(following);
  return character;
}

std::u16string utf16Of(std::string_view text) {
  constexpr char32_t firstBeyond = 0x10000;
  std::u16string units;
  while (!text.empty()) {
    const char32_t character = nextCharacter(text);
    if (character < firstBeyond) {
      units += static_cast<char16_t>(character);
    } else {
      units += static_cast<char16_t>(0xD800U + ((character - firstBeyond) >> 10U));
      units += static_cast<char16_t>(0xDC00U + ((character - firstBeyond) & 0x3FFU));
    }
  }
  return units;
}

bool isDigit(char16_t unit) {
  return unit >= u'0' && unit <= u'9';
}

/// The run of digits `text` begins with, taken off it, without leading zeros.
std::u16string_view takeDigits(std::u16string_view& text) {
  const auto length = static_cast<std::size_t>(std::ranges::find_if_not(text, isDigit) - text.begin());
  auto run = text.substr(0, length);
  text.remove_prefix(length);
  run.remove_prefix(std::min(run.find_first_not_of(u'0'), run.size()));
  return run;
}

int compareRuns(std::u16string_view left, std::u16string_view right) {
  if (left.size() != right.size()) return left.size() < right.size() ? -1 : 1;
  return left.compare(right);
}

}  // namespace

int compareNumerically(std::string_view left, std::string_view right) {
  const std::u16string leftUnits = utf16Of(left);
  const std::u16string rightUnits = utf16Of(right);
  std::u16string_view l = leftUnits;
  std::u16string_view r = rightUnits;
  while (!l.empty() && !r.empty()) {
    if (isDigit(l.front()) && isDigit(r.front())) {
      const int order = compareRuns(takeDigits(l), takeDigits(r));
      if (order != 0) return order;
      continue;
    }
    if (l.front() != r.front()) return l.front() < r.front() ? -1 : 1;
    l.remove_prefix(1);
    r.remove_prefix(1);
  }
  return static_cast<int>(!l.empty()) - static_cast<int>(!r.empty());
}

}  // namespace platform::codesignature

#include "hdiutil/VolumeListing.h"

#include <charconv>
#include <limits>
#include <utility>

namespace tools {
namespace {

constexpr std::size_t deepestPath = 256;
constexpr std::size_t mostSpecialEntries = 100'000;  // links, device nodes and so on, in one volume

/// A relative path of plain names.
bool isSafePath(std::string_view path) {
  for (std::size_t depth = 0; depth < deepestPath; ++depth) {
    const auto slash = path.find('/');
    const std::string_view name = path.substr(0, slash);
    if (name.empty() || name == "." || name == "..") return false;
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
  return false;
}

/// The nine letters after the kind, as in "drwxr-x--x".
unsigned permissionBits(std::string_view mode) {
  unsigned bits = 0;
  for (std::size_t i = 1; i < 10; ++i) {
    const char letter = i < mode.size() ? mode[i] : '-';
    bits = bits << 1U | (letter == '-' || letter == 'S' || letter == 'T' ? 0U : 1U);
  }
  return bits;
}

std::uint64_t saturatingSum(std::uint64_t a, std::uint64_t b) {
  return a > std::numeric_limits<std::uint64_t>::max() - b ? std::numeric_limits<std::uint64_t>::max() : a + b;
}

}  // namespace

void VolumeListing::add(std::string_view line) {
  static constexpr std::string_view entriesFollow = "----------";
  static constexpr std::string_view equals = " = ";
  if (line == entriesFollow) {
    isInEntries_ = true;
  } else if (line.empty()) {
    endEntry();
  } else if (const auto position = line.find(equals); position != std::string_view::npos) {
    const std::string_view key = line.substr(0, position);
    const std::string_view value = line.substr(position + equals.size());
    if (isInEntries_) {
      addToEntry(key, value);
    } else if (key == "Type") {
      format_ = value;
    }
  }
}

void VolumeListing::finish() {
  endEntry();
}

void VolumeListing::addToEntry(std::string_view key, std::string_view value) {
  if (key == "Path") entry_.path = value;
  if (key == "Mode") entry_.mode = value;
  if (key == "Symbolic Link") entry_.linkText = value;
  if (key == "Alternate Stream") entry_.isAlternateStream = value == "+";
  if (key == "Size") std::from_chars(value.data(), value.data() + value.size(), entry_.size);
}

void VolumeListing::endEntry() {
  const Entry entry = std::exchange(entry_, {});
  if (entry.path.empty() || entry.isAlternateStream) return;
  isSafe_ = isSafe_ && isSafePath(entry.path) &&
            links_.size() + specialFiles_.size() + restrictedFolders_.size() < mostSpecialEntries;
  if (!isSafe_) return;
  ++fileCount_;
  totalBytes_ = saturatingSum(totalBytes_, entry.size);
  const char kind = entry.mode.empty() ? '-' : entry.mode.front();
  if (kind == 'l') {
    links_.push_back({.path = entry.path, .size = entry.size, .text = entry.linkText});
  } else if (kind == 'd') {
    const unsigned permissions = permissionBits(entry.mode);
    if ((permissions & 0700U) != 0700U) restrictedFolders_.push_back({.path = entry.path, .permissions = permissions});
  } else if (kind != '-') {
    specialFiles_.push_back(entry.path);
  }
}

}  // namespace tools

#include "Platform/PropertyListShape.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace platform {
namespace {

constexpr int maximumDepth = 256;
constexpr std::uint64_t maximumValues = 4'000'000;

/// Walks over the tags of an XML property list. What is inside comments and the like must not count as an end tag, or
/// nesting could hide behind it.
class XmlWalk {
 public:
  explicit XmlWalk(std::string_view text) : rest_(text) {}

  bool staysShallow() {
    int depth = 0;
    while (skipTo("<")) {
      if (rest_.starts_with("<!--")) {
        if (!skipPast("-->")) return true;
      } else if (rest_.starts_with("<![CDATA[")) {
        if (!skipPast("]]>")) return true;
      } else if (rest_.starts_with("<?")) {
        if (!skipPast("?>")) return true;
      } else if (rest_.starts_with("<!")) {
        if (!skipPlainDeclaration()) return false;
      } else {
        depth += levelOfTag();
        if (depth > maximumDepth) return false;
      }
    }
    return true;
  }

 private:
  bool skipTo(std::string_view mark) {
    const std::size_t found = rest_.find(mark);
    rest_.remove_prefix(std::min(found, rest_.size()));
    return found != std::string_view::npos;
  }
  bool skipPast(std::string_view mark) {
    if (!skipTo(mark)) return false;
    rest_.remove_prefix(mark.size());
    return true;
  }

  /// A document type as every property list has it, without declarations of its own.
  bool skipPlainDeclaration() {
    const std::size_t end = rest_.find('>');
    const std::string_view declaration = rest_.substr(1, end);
    if (declaration.contains('[') || declaration.contains('<')) return false;
    rest_.remove_prefix(std::min(end, rest_.size()));
    return true;
  }

  /// What the tag adds to the nesting; moves past its name.
  int levelOfTag() {
    const std::string_view tag = rest_.substr(0, rest_.find('>'));
    rest_.remove_prefix(1);
    const bool isEnd = tag.starts_with("</");
    const std::string_view name = tag.substr(isEnd ? 2 : 1);
    if (!name.starts_with("array") && !name.starts_with("dict")) return 0;
    if (isEnd) return -1;
    return tag.ends_with('/') ? 0 : 1;
  }

  std::string_view rest_;
};

/// The object table of a binary property list: how deep and how large the tree below each object is, from the leaves
/// up.
class BinaryWalk {
 public:
  explicit BinaryWalk(std::string_view bytes) : bytes_(bytes) {}

  bool isTree() {
    constexpr std::size_t trailerSize = 32;
    if (bytes_.size() < trailerSize) return true;
    const std::size_t trailer = bytes_.size() - trailerSize;
    offsetSize_ = static_cast<std::uint8_t>(bytes_[trailer + 6]);
    referenceSize_ = static_cast<std::uint8_t>(bytes_[trailer + 7]);
    count_ = integer(trailer + 8, 8).value_or(0);
    table_ = integer(trailer + 24, 8).value_or(0);
    const std::uint64_t top = integer(trailer + 16, 8).value_or(0);
    // Each object takes at least a byte: no more of them than bytes.
    if (count_ > bytes_.size() || top >= count_) return false;
    sizes_.assign(static_cast<std::size_t>(count_), unseen);
    return walk(top);
  }

 private:
  static constexpr std::uint64_t unseen = 0;
  static constexpr std::uint64_t underWay = UINT64_MAX;

  struct Frame {
    std::uint64_t object;
    std::uint64_t nextReference;  ///< where it lies
    std::uint64_t referencesLeft;
    std::uint64_t size;
  };

  bool walk(std::uint64_t top) {
    enter(top);
    while (!stack_.empty()) {
      if (stack_.size() > maximumDepth + 1) return false;
      Frame& frame = stack_.back();
      if (frame.size > maximumValues) return false;
      if (frame.referencesLeft == 0) {
        leave();
        continue;
      }
      const std::uint64_t child = integer(frame.nextReference, referenceSize_).value_or(count_);
      frame.nextReference += referenceSize_;
      --frame.referencesLeft;
      if (child >= count_) continue;
      const std::uint64_t known = sizes_[static_cast<std::size_t>(child)];
      if (known == underWay) return false;
      if (known == unseen) {
        enter(child);
      } else {
        frame.size += known;
      }
    }
    return true;
  }

  void enter(std::uint64_t object) {
    sizes_[static_cast<std::size_t>(object)] = underWay;
    Frame frame = {object, 0, 0, 1};
    if (const auto offset = integer(table_ + object * offsetSize_, offsetSize_)) readContainer(*offset, frame);
    stack_.push_back(frame);
  }

  void leave() {
    const Frame finished = stack_.back();
    stack_.pop_back();
    sizes_[static_cast<std::size_t>(finished.object)] = finished.size;
    if (!stack_.empty()) stack_.back().size += finished.size;
  }

  /// Fills in the references of an array, a set or a dictionary; other objects have none.
  void readContainer(std::uint64_t offset, Frame& frame) const {
    const auto marker = integer(offset, 1);
    if (!marker) return;
    const std::uint64_t kind = *marker >> 4U;
    const bool isDictionary = kind == 0xD;
    if (kind != 0xA && kind != 0xC && !isDictionary) return;
    std::uint64_t count = *marker & 0xFU;
    frame.nextReference = offset + 1;
    if (count == 0xF) {
      const std::uint64_t width = std::uint64_t{1} << (integer(offset + 1, 1).value_or(0) & 0x3U);
      count = integer(offset + 2, width).value_or(0);
      frame.nextReference = offset + 2 + width;
    }
    frame.referencesLeft = std::min<std::uint64_t>(count, bytes_.size()) * (isDictionary ? 2 : 1);
  }

  /// A big-endian integer; absent outside the bytes.
  [[nodiscard]] std::optional<std::uint64_t> integer(std::uint64_t offset, std::uint64_t width) const {
    if (width == 0 || width > 8 || offset > bytes_.size() || width > bytes_.size() - offset) return std::nullopt;
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < width; ++i) {
      value = value << 8U | static_cast<std::uint8_t>(bytes_[static_cast<std::size_t>(offset + i)]);
    }
    return value;
  }

  std::string_view bytes_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t table_ = 0;
  std::vector<std::uint64_t> sizes_;
  std::vector<Frame> stack_;
};

}  // namespace

bool hasParsableShape(std::string_view bytes) {
  return bytes.starts_with("bplist") ? BinaryWalk(bytes).isTree() : XmlWalk(bytes).staysShallow();
}

}  // namespace platform

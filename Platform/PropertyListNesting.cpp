#include "Platform/PropertyListNesting.h"

#include <algorithm>
#include <cstdint>

namespace platform {
namespace {

/// Walks over the tags of an XML property list. Where it is in doubt it counts too much: in comments and the like start
/// tags count and end tags do not, so that nothing can hide there.
class XmlWalk {
 public:
  explicit XmlWalk(std::string_view text) : rest_(text) {}

  bool staysWithin(int maximum) {
    while (skipText() && depth_ <= maximum) {
      if (rest_.starts_with("<!--")) {
        skipRegion("-->");
      } else if (rest_.starts_with("<![CDATA[")) {
        skipRegion("]]>");
      } else if (rest_.starts_with("<?")) {
        skipRegion("?>");
      } else if (rest_.starts_with("<!")) {
        if (!skipPlainDeclaration()) return false;
      } else {
        readTag();
      }
    }
    return depth_ <= maximum && moves_ <= maximumMoves;
  }

 private:
  static constexpr std::uint64_t maximumMoves = std::uint64_t{1} << 34U;

  /// False at the end, and when decoding the texts so far moves too much: all that follows, once for each entity.
  bool skipText() {
    const std::size_t found = rest_.find('<');
    const std::string_view text = rest_.substr(0, found);
    moves_ += std::uint64_t{text.size()} * static_cast<std::uint64_t>(std::ranges::count(text, '&'));
    rest_.remove_prefix(text.size());
    return found != std::string_view::npos && moves_ <= maximumMoves;
  }

  void skipRegion(std::string_view end) {
    std::string_view region = rest_.substr(0, rest_.find(end));
    rest_.remove_prefix(region.size());
    while (!region.empty()) {
      if (isContainer(region.substr(1))) ++depth_;
      region.remove_prefix(std::min(region.find('<', 1), region.size()));
    }
  }

  /// A document type as every property list has it, without declarations of its own.
  bool skipPlainDeclaration() {
    const std::string_view declaration = rest_.substr(1, rest_.find('>'));
    rest_.remove_prefix(1);
    return !declaration.contains('[') && !declaration.contains('<');
  }

  /// A tag ends at the next one at the latest, or every tag without an end would be sought to the end of the text.
  void readTag() {
    const std::size_t end = rest_.find_first_of("<>", 1);
    const std::string_view tag = rest_.substr(1, end - 1);
    const bool isClosed = end != std::string_view::npos && rest_[end] == '>';
    rest_.remove_prefix(1);
    if (isClosed && (tag == "/array" || tag == "/dict")) --depth_;
    if (isContainer(tag) && !(isClosed && tag.ends_with('/'))) ++depth_;
  }

  static bool isContainer(std::string_view tag) { return tag.starts_with("array") || tag.starts_with("dict"); }

  std::string_view rest_;
  int depth_ = 0;
  std::uint64_t moves_ = 0;  // of bytes, by the decoding of entities
};

}  // namespace

bool isCheapToParse(std::string_view xml, int maximumDepth) {
  return XmlWalk(xml).staysWithin(maximumDepth);
}

}  // namespace platform

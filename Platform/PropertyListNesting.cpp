#include "Platform/PropertyListNesting.h"

#include <algorithm>

namespace platform {
namespace {

/// Walks over the tags of an XML property list. Where it is in doubt it counts too much: in comments and the like start
/// tags count and end tags do not, so that nothing can hide there.
class XmlWalk {
 public:
  explicit XmlWalk(std::string_view text) : rest_(text) {}

  bool staysWithin(int maximum) {
    while (skipTo("<") && depth_ <= maximum) {
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
    return depth_ <= maximum;
  }

 private:
  bool skipTo(std::string_view mark) {
    const std::size_t found = rest_.find(mark);
    rest_.remove_prefix(std::min(found, rest_.size()));
    return found != std::string_view::npos;
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

  void readTag() {
    const std::string_view tag = rest_.substr(1, rest_.find('>') - 1);
    rest_.remove_prefix(1);
    if (tag == "/array" || tag == "/dict") --depth_;
    if (isContainer(tag) && !tag.ends_with('/')) ++depth_;
  }

  static bool isContainer(std::string_view tag) { return tag.starts_with("array") || tag.starts_with("dict"); }

  std::string_view rest_;
  int depth_ = 0;
};

}  // namespace

bool isNestedAtMost(int maximum, std::string_view xml) {
  return XmlWalk(xml).staysWithin(maximum);
}

}  // namespace platform

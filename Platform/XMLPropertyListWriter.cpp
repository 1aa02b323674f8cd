#include "Platform/XMLPropertyListWriter.h"

#include "Platform/UTF8.h"
#include "Platform/XMLPropertyListScalars.h"

#include <algorithm>

namespace platform {
namespace {

constexpr std::string_view header =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

bool isCharacter(std::uint32_t scalar) {
  if (scalar < 0x20) return scalar == '\t' || scalar == '\n' || scalar == '\r';
  return (scalar & 0xFFFFF800U) != 0xD800 && scalar != 0xFFFE && scalar != 0xFFFF;
}

std::string escaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const auto scalar = firstScalar(text);
    const std::string_view character = text.substr(0, scalar ? scalar->bytes : 1);
    text.remove_prefix(character.size());
    if (!scalar || !isCharacter(scalar->value)) {
      appendScalar(result, 0xFFFD);
    } else if (character == "&") {
      result += "&amp;";
    } else if (character == "<") {
      result += "&lt;";
    } else if (character == ">") {
      result += "&gt;";
    } else if (character == "\r") {
      result += "&#13;";  // a plain one would be read as a line feed
    } else {
      result += character;
    }
  }
  return result;
}

class XMLWriter {
 public:
  std::string write(const PropertyList& value) {
    text_ = header;
    value.visit(*this);
    return std::move(text_) + "</plist>\n";
  }

  void operator()(bool value) { line(value ? "<true/>" : "<false/>"); }
  void operator()(std::int64_t value) { element("integer", std::to_string(value)); }
  void operator()(std::uint64_t value) { element("integer", std::to_string(value)); }
  void operator()(double value) { element("real", xml::textFromReal(value)); }
  void operator()(const std::string& value) { element("string", escaped(value)); }
  void operator()(PropertyList::Date value) { element("date", xml::textFromDate(value)); }
  void operator()(PropertyList::UID value) {
    (*this)(PropertyList::Dictionary{{"CF$UID", std::uint64_t{value.value}}});
  }

  /// Lines of 76 columns at most, a tab taken for 8, but 12 in any case.
  void operator()(const PropertyList::Data& data) {
    const std::string digits = xml::base64FromData(data);
    const std::size_t width = 76 - (8 * std::min<std::size_t>(indentation_, 8));
    line("<data>");
    for (std::size_t at = 0; at < digits.size(); at += width) line(digits.substr(at, width));
    line("</data>");
  }

  void operator()(const PropertyList::Array& array) {
    open("array", array.empty());
    for (const auto& value : array) value.visit(*this);
    close("array", array.empty());
  }

  void operator()(const PropertyList::Dictionary& entries) {
    open("dict", entries.empty());
    for (const auto& [key, value] : entries) {
      element("key", escaped(key));
      value.visit(*this);
    }
    close("dict", entries.empty());
  }

 private:
  void line(std::string_view text) {
    text_.append(indentation_, '\t');
    text_ += text;
    text_ += '\n';
  }

  void open(std::string_view name, bool isEmpty) {
    line(std::string("<").append(name).append(isEmpty ? "/>" : ">"));
    if (!isEmpty) ++indentation_;
  }

  void close(std::string_view name, bool isEmpty) {
    if (isEmpty) return;
    --indentation_;
    line(std::string("</").append(name).append(">"));
  }

  void element(std::string_view name, std::string_view contents) {
    line(std::string("<").append(name).append(">").append(contents).append("</").append(name).append(">"));
  }

  std::string text_;
  std::size_t indentation_ = 0;
};

}  // namespace

std::string xmlPropertyList(const PropertyList& value) {
  return XMLWriter().write(value);
}

}  // namespace platform

#include "Platform/XMLPropertyList.h"

#include "Platform/XMLPropertyListScalars.h"

#include <algorithm>
#include <array>
#include <memory>

#include <expat.h>

namespace platform {
namespace {

enum class Element { plist, dict, array, key, string, integer, real, date, data, yes, no };

std::optional<Element> elementNamed(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, Element>, 11> elements = {{
      {"plist", Element::plist},
      {"dict", Element::dict},
      {"array", Element::array},
      {"key", Element::key},
      {"string", Element::string},
      {"integer", Element::integer},
      {"real", Element::real},
      {"date", Element::date},
      {"data", Element::data},
      {"true", Element::yes},
      {"false", Element::no},
  }};
  const auto* const found = std::ranges::find(elements, name, &std::pair<std::string_view, Element>::first);
  return found == elements.end() ? std::nullopt : std::optional(found->second);
}

bool isWhiteSpace(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::optional<PropertyList> scalar(Element element, std::string text) {
  switch (element) {
    case Element::key:
    case Element::string:
      return PropertyList(std::move(text));
    case Element::integer:
      return xml::integerFromText(text);
    case Element::real:
      return xml::realFromText(text);
    case Element::date:
      return xml::dateFromText(text);
    case Element::data:
      return xml::dataFromBase64(text);
    default:
      return isWhiteSpace(text) ? std::optional<PropertyList>(element == Element::yes) : std::nullopt;
  }
}

/// Builds the value from the parser's events. After a fault, or once the root is complete, it stops the parser and
/// takes no notice of the events that still come.
class XMLReader {
 public:
  XMLReader() : parser_(XML_ParserCreate(nullptr), &XML_ParserFree) {}

  std::optional<PropertyList> read(std::string_view bytes) {
    XML_Parser parser = parser_.get();
    if (parser == nullptr) return std::nullopt;
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, &startElement, &endElement);
    XML_SetCharacterDataHandler(parser, &characters);
    XML_SetStartDoctypeDeclHandler(parser, &documentType);
    XML_SetSkippedEntityHandler(parser, &skippedEntity);
    XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), XML_TRUE);
    return state_ == State::complete ? std::move(root_) : std::nullopt;
  }

 private:
  enum class State { reading, complete, failed };

  /// A container that is not closed yet.
  struct Container {
    bool isDictionary = false;
    PropertyList::Dictionary entries;
    PropertyList::Array elements;
    std::optional<std::string> key;
  };

  static XMLReader& self(void* reader) { return *static_cast<XMLReader*>(reader); }

  static void startElement(void* reader, const XML_Char* name, const XML_Char** /*attributes*/) noexcept {
    if (self(reader).state_ == State::reading && !self(reader).start(name)) self(reader).stop(State::failed);
  }
  static void endElement(void* reader, const XML_Char* name) noexcept {
    if (self(reader).state_ == State::reading && !self(reader).end(name)) self(reader).stop(State::failed);
  }
  static void characters(void* reader, const XML_Char* text, int length) noexcept {
    const std::string_view piece(text, static_cast<std::size_t>(length));
    if (self(reader).state_ == State::reading && !self(reader).text(piece)) self(reader).stop(State::failed);
  }
  static void documentType(void* reader, const XML_Char* /*name*/, const XML_Char* /*system*/,
                           const XML_Char* /*public*/, int declaresAnything) noexcept {
    if (declaresAnything != 0) self(reader).stop(State::failed);
  }
  static void skippedEntity(void* reader, const XML_Char* /*name*/, int /*isParameterEntity*/) noexcept {
    self(reader).stop(State::failed);
  }

  void stop(State state) {
    state_ = state;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  bool start(std::string_view name) {
    const auto element = elementNamed(name);
    if (!element || scalar_) return false;
    if (*element == Element::plist) return !std::exchange(isInPlist_, true) && open_.empty();
    if (!mayStandHere(*element) || open_.size() > PropertyList::maximumDepth) return false;
    if (++values_ > PropertyList::maximumValues) return false;
    if (*element == Element::dict || *element == Element::array) {
      open_.push_back({.isDictionary = *element == Element::dict});
    } else {
      scalar_ = element;
      text_.clear();
    }
    return true;
  }

  [[nodiscard]] bool mayStandHere(Element element) const {
    if (open_.empty()) return element != Element::key && !root_;
    const Container& container = open_.back();
    return container.isDictionary ? container.key.has_value() == (element != Element::key) : element != Element::key;
  }

  bool text(std::string_view piece) {
    if (!scalar_) return isWhiteSpace(piece);
    text_ += piece;
    return true;
  }

  bool end(std::string_view name) {
    if (scalar_) {
      auto value = scalar(*scalar_, std::move(text_));
      if (!value) return false;
      if (std::exchange(scalar_, std::nullopt) != Element::key) return place(std::move(*value));
      open_.back().key = *value->string();
      return true;
    }
    if (name == "plist") {
      if (root_) stop(State::complete);
      return root_.has_value();
    }
    Container container = std::move(open_.back());
    open_.pop_back();
    if (container.key) return false;
    return place(container.isDictionary ? dictionary(std::move(container.entries))
                                        : PropertyList(std::move(container.elements)));
  }

  static PropertyList dictionary(PropertyList::Dictionary entries) {
    const auto uid = entries.size() == 1 ? entries.find("CF$UID") : entries.end();
    const auto number = uid == entries.end() ? std::nullopt : uid->second.unsignedInteger();
    const bool isUID = number && std::in_range<std::uint32_t>(*number);
    return isUID ? PropertyList(PropertyList::UID{static_cast<std::uint32_t>(*number)})
                 : PropertyList(std::move(entries));
  }

  bool place(PropertyList value) {
    if (open_.empty()) {
      root_ = std::move(value);
      if (!isInPlist_) stop(State::complete);
    } else if (Container& container = open_.back(); container.isDictionary) {
      container.entries.insert_or_assign(std::move(*container.key), std::move(value));
      container.key.reset();
    } else {
      container.elements.push_back(std::move(value));
    }
    return true;
  }

  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser_;
  State state_ = State::reading;
  bool isInPlist_ = false;
  std::optional<Element> scalar_;  // the element without elements of its own that is open
  std::string text_;               // its text so far
  std::vector<Container> open_;
  std::optional<PropertyList> root_;
  std::size_t values_ = 0;
};

}  // namespace

std::optional<PropertyList> parseXMLPropertyList(std::string_view bytes) {
  // Strictly, the XML declaration may not come after white space. In UTF-16 it is left where it stands.
  if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
  const std::size_t start = std::min(bytes.find_first_not_of(" \t\r\n"), bytes.size());
  if (bytes.substr(start).starts_with('<')) bytes.remove_prefix(start);
  return XMLReader().read(bytes);
}

}  // namespace platform

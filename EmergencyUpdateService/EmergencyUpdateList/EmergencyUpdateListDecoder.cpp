#include "EmergencyUpdateList/EmergencyUpdateListDecoder.h"

#include <array>
#include <bitset>
#include <map>
#include <utility>

#include <nlohmann/json.hpp>

namespace corvane {
namespace {

/// With the widest numbers there are: one that does not fit in them rejects the document, even where nobody reads it.
using json = nlohmann::basic_json<std::map, std::vector, std::string, bool, std::int64_t, std::uint64_t, long double>;
using Update = EmergencyUpdateList::Update;

constexpr std::size_t maximumDepth = 512;
constexpr std::size_t maximumElements = 1'000'000;
constexpr std::size_t maximumURLBytes = std::size_t{64} << 10U;

/// Every place in the document where a value can stand.
enum class Slot : std::uint8_t {
  document,
  ignored,
  version,
  updates,
  updatesElement,
  date,
  appVersions,
  appVersionsElement,
  osVersions,
  osVersionsElement,
  devicePlatforms,
  devicePlatformsElement,
  actions,
  actionsElement,
  dryRun,
  install,
  url,
  count
};

struct Key {
  Slot object;  // the slot of the object that the key stands in
  std::string_view name;
  Slot value;
};

constexpr std::array keys = {
    Key{Slot::document, "version", Slot::version},
    Key{Slot::document, "updates", Slot::updates},
    Key{Slot::updatesElement, "date", Slot::date},
    Key{Slot::updatesElement, "appVersions", Slot::appVersions},
    Key{Slot::updatesElement, "osVersions", Slot::osVersions},
    Key{Slot::updatesElement, "devicePlatforms", Slot::devicePlatforms},
    Key{Slot::updatesElement, "actions", Slot::actions},
    Key{Slot::actionsElement, "dryRun", Slot::dryRun},
    Key{Slot::actionsElement, "install", Slot::install},
    Key{Slot::install, "url", Slot::url},
};

Slot elementOf(Slot array) {
  switch (array) {
    case Slot::updates:
      return Slot::updatesElement;
    case Slot::appVersions:
      return Slot::appVersionsElement;
    case Slot::osVersions:
      return Slot::osVersionsElement;
    case Slot::devicePlatforms:
      return Slot::devicePlatformsElement;
    case Slot::actions:
      return Slot::actionsElement;
    default:
      return Slot::ignored;
  }
}

Update::DevicePlatform devicePlatform(std::string_view text) {
  using enum Update::DevicePlatform;
  for (const Update::DevicePlatform known : {arm64, x86_64}) {
    if (rawValue(known) == text) return known;
  }
  return unknown;
}

/// Receives the document's events. A member that returns false ends the parse: the document is rejected.
class Decoder final : public json::json_sax_t {
 public:
  EmergencyUpdateList list;

  bool null() override {
    switch (slot()) {
      case Slot::osVersions:
      case Slot::devicePlatforms:
      case Slot::url:
        return true;
      default:
        return otherScalar();
    }
  }
  bool boolean(bool /*value*/) override { return otherScalar(); }
  bool number_integer(json::number_integer_t /*value*/) override { return otherScalar(); }
  bool number_unsigned(json::number_unsigned_t /*value*/) override { return otherScalar(); }
  bool number_float(json::number_float_t /*value*/, const std::string& /*text*/) override { return otherScalar(); }
  bool binary(json::binary_t& /*value*/) override { return false; }
  bool parse_error(std::size_t /*at*/, const std::string& /*token*/, const json::exception& /*error*/) override {
    return false;
  }

  // The two optional arrays are there when an element of theirs comes: start_array() has made them.
  bool string(std::string& text) override {
    switch (slot()) {
      case Slot::version:
        list.version = std::move(text);
        return true;
      case Slot::date:
        update().date = std::move(text);
        return true;
      case Slot::appVersionsElement:
        update().appVersions.push_back(std::move(text));
        return countElement();
      case Slot::osVersionsElement:
        update().osVersions->push_back(std::move(text));
        return countElement();
      case Slot::devicePlatformsElement:
        update().devicePlatforms->push_back(devicePlatform(text));
        return countElement();
      case Slot::url:
        if (text.size() <= maximumURLBytes) installURL_ = platform::URL::parse(text);
        return true;
      default:
        return otherScalar();
    }
  }

  bool start_object(std::size_t /*size*/) override {
    switch (slot()) {
      case Slot::updatesElement:
        list.updates.emplace_back();
        return countElement() && enter();
      case Slot::actionsElement:
        installURL_.reset();
        return countElement() && enter();
      case Slot::document:
      case Slot::install:
        return enter();
      default:
        return skipContainer();
    }
  }

  bool key(std::string& name) override {
    if (skipped_ > 0) return true;
    Frame& object = frames_.back();
    object.next = Slot::ignored;
    for (const Key& known : keys) {
      if (known.object != object.slot || known.name != name) continue;
      const auto index = static_cast<std::size_t>(known.value);
      if (!object.seen[index]) object.next = known.value;  // of a key that stands twice the first counts
      object.seen.set(index);
    }
    return true;
  }

  bool end_object() override {
    if (skipped_ > 0) return endSkipped();
    const Frame object = frames_.back();
    frames_.pop_back();
    switch (object.slot) {
      case Slot::document:
        return object.has(Slot::version) && object.has(Slot::updates);
      case Slot::updatesElement:
        return object.has(Slot::date) && object.has(Slot::appVersions) && object.has(Slot::actions);
      case Slot::actionsElement:
        update().actions.push_back(action(object));
        return true;
      default:
        return true;
    }
  }

  bool start_array(std::size_t /*size*/) override {
    switch (slot()) {
      case Slot::osVersions:
        update().osVersions.emplace();
        return enter();
      case Slot::devicePlatforms:
        update().devicePlatforms.emplace();
        return enter();
      case Slot::updates:
      case Slot::appVersions:
      case Slot::actions:
        return enter();
      default:
        return skipContainer();
    }
  }

  bool end_array() override {
    if (skipped_ > 0) return endSkipped();
    frames_.pop_back();
    return true;
  }

 private:
  struct Frame {
    Slot slot;  // where this object or array itself stands
    Slot next;  // where its next value stands
    std::bitset<static_cast<std::size_t>(Slot::count)> seen;

    [[nodiscard]] bool has(Slot value) const { return seen[static_cast<std::size_t>(value)]; }
  };

  /// Where the value that comes now stands.
  [[nodiscard]] Slot slot() const {
    if (skipped_ > 0) return Slot::ignored;
    return frames_.empty() ? Slot::document : frames_.back().next;
  }

  Update& update() { return list.updates.back(); }

  bool countElement() { return ++elements_ <= maximumElements; }

  bool enter() {
    const Slot here = slot();
    frames_.push_back({.slot = here, .next = elementOf(here), .seen = {}});
    return true;
  }

  /// Whether a value that the slot has no use for may stand there all the same.
  [[nodiscard]] bool mayBeUnusable() const {
    switch (slot()) {
      case Slot::ignored:
      case Slot::dryRun:
      case Slot::install:
      case Slot::url:
        return true;
      default:
        return false;
    }
  }

  bool otherScalar() { return mayBeUnusable(); }

  bool skipContainer() {
    if (!mayBeUnusable()) return false;
    ++skipped_;
    return frames_.size() + skipped_ <= maximumDepth;
  }

  bool endSkipped() {
    --skipped_;
    return true;
  }

  [[nodiscard]] Update::Action action(const Frame& object) {
    if (object.has(Slot::dryRun) == object.has(Slot::install)) return Update::Unknown{};
    if (object.has(Slot::dryRun)) return Update::DryRun{};
    if (!installURL_) return Update::Unknown{};
    return Update::Install{.url = std::move(*installURL_)};
  }

  std::vector<Frame> frames_;
  std::size_t skipped_ = 0;  // open objects and arrays below the last frame that nobody reads
  std::size_t elements_ = 0;
  std::optional<platform::URL> installURL_;  // of the action being read
};

}  // namespace

std::optional<EmergencyUpdateList> decodeEmergencyUpdateList(std::string_view data) {
  if (data.contains('\0')) return std::nullopt;  // the library takes it for the end of the document
  Decoder decoder;
  if (!json::sax_parse(data.begin(), data.end(), &decoder)) return std::nullopt;
  return std::move(decoder.list);
}

}  // namespace corvane

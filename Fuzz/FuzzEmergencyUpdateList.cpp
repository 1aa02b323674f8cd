#include "EmergencyUpdateList/EmergencyUpdateListDecoder.h"
#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"
#include "FuzzSupport.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace {

using namespace corvane;
using json = nlohmann::basic_json<std::map, std::vector, std::string, bool, std::int64_t, std::uint64_t, long double>;
using Update = EmergencyUpdateList::Update;
using Validator = EmergencyUpdateListValidator;
using Strings = std::vector<std::string>;

// The list once more, in the plainest way there is: a tree of the whole document, taken apart field by field.

void must(bool condition) {
  if (!condition) throw std::invalid_argument("not an acceptable document");
}

std::string text(const json& value) {
  must(value.is_string());
  return value.get<std::string>();
}

const json& member(const json& object, const char* key) {
  must(object.is_object() && object.contains(key));
  return object.at(key);
}

Strings texts(const json& array) {
  must(array.is_array());
  Strings result;
  for (const json& element : array) result.push_back(text(element));
  return result;
}

bool isAbsent(const json& update, const char* key) {
  return !update.contains(key) || update.at(key).is_null();
}

Update::DevicePlatform platformNamed(const std::string& name) {
  if (name == "arm64") return Update::DevicePlatform::arm64;
  return name == "x86_64" ? Update::DevicePlatform::x86_64 : Update::DevicePlatform::unknown;
}

Update::Action action(const json& element) {
  must(element.is_object());
  if (element.contains("dryRun") && element.contains("install")) return Update::Unknown{};
  if (element.contains("dryRun")) return Update::DryRun{};
  if (!element.contains("install")) return Update::Unknown{};
  const json& install = element.at("install");
  if (!install.is_object() || !install.contains("url") || !install.at("url").is_string()) return Update::Unknown{};
  const auto url = platform::URL::parse(install.at("url").get<std::string>());
  return url ? Update::Action(Update::Install{*url}) : Update::Action(Update::Unknown{});
}

Update update(const json& element) {
  Update result{.date = text(member(element, "date")), .appVersions = texts(member(element, "appVersions"))};
  if (!isAbsent(element, "osVersions")) result.osVersions = texts(element.at("osVersions"));
  if (!isAbsent(element, "devicePlatforms")) {
    result.devicePlatforms.emplace();
    for (const auto& name : texts(element.at("devicePlatforms"))) {
      result.devicePlatforms->push_back(platformNamed(name));
    }
  }
  must(member(element, "actions").is_array());
  for (const json& one : element.at("actions")) result.actions.push_back(action(one));
  return result;
}

/// Of a key that stands twice the first counts.
json treeOf(std::string_view document) {
  std::map<int, std::set<std::string>> seen;  // keys, by the depth of their object
  return json::parse(document, [&seen](int depth, json::parse_event_t event, json& value) {
    if (event == json::parse_event_t::object_start) seen[depth + 1].clear();
    return event != json::parse_event_t::key || seen[depth].insert(value.get<std::string>()).second;
  });
}

std::optional<EmergencyUpdateList> list(std::string_view document) {
  try {
    must(!document.contains('\0'));  // the library takes it for the end of the document
    const json tree = treeOf(document);
    EmergencyUpdateList result{.version = text(member(tree, "version"))};
    must(member(tree, "updates").is_array());
    for (const json& element : tree.at("updates")) result.updates.push_back(update(element));
    return result;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

Strings components(const std::string& version) {
  Strings result{""};
  for (const char c : version) {
    if (c == '.') {
      result.emplace_back();
    } else {
      result.back() += c;
    }
  }
  return result;
}

bool matchesAny(const Strings& patterns, const std::string& version) {
  const Strings found = components(version);
  return std::ranges::any_of(patterns, [&found](const std::string& pattern) {
    const Strings wanted = components(pattern);
    for (std::size_t i = 0; i < wanted.size() && i < found.size(); ++i) {
      if (wanted[i] != found[i]) return false;
    }
    return true;
  });
}

std::string lowercased(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return c < 0x80 ? std::tolower(c) : c; });
  return text;
}

bool matches(const Update& entry, const EmergencyUpdateContext& context) {
  if (!matchesAny(entry.appVersions, context.appBundleVersion)) return false;
  if (entry.osVersions && !entry.osVersions->empty() && !matchesAny(*entry.osVersions, context.osVersion)) return false;
  if (!entry.devicePlatforms || entry.devicePlatforms->empty()) return true;
  return std::ranges::any_of(*entry.devicePlatforms, [&context](Update::DevicePlatform one) {
    return lowercased(std::string(rawValue(one))) == lowercased(context.devicePlatform);
  });
}

std::expected<Validator::ValidationOutcome, Validator::ValidationFailure> outcome(
    const EmergencyUpdateList& document, const EmergencyUpdateContext& context) {
  if (document.updates.empty()) return Validator::NoUpdates{};
  const Update* chosen = nullptr;
  for (const Update& entry : document.updates) {
    if (matches(entry, context)) chosen = &entry;
  }
  if (chosen == nullptr) return Validator::NoMatches{};
  std::vector<Update::Action> kept;
  for (const auto& one : chosen->actions) {
    if (std::holds_alternative<Update::DryRun>(one)) return Validator::Matched{{one}};
    if (std::holds_alternative<Update::Install>(one) && kept.empty()) kept.push_back(one);
  }
  if (kept.empty()) return std::unexpected(Validator::ValidationFailure::noActions);
  return Validator::Matched{kept};
}

}  // namespace

/// The list as it comes from the network: what is read of it and what it asks for must be just what the plain way says.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view document = fuzz::textOf(data, size);
  // Close to the depth from which documents are rejected the two may differ.
  if (std::ranges::count_if(document, [](char c) { return c == '[' || c == '{'; }) > 500) return 0;
  const auto read = decodeEmergencyUpdateList(document);
  fuzz::require(read == list(document));
  if (!read) return 0;
  std::vector<EmergencyUpdateContext> contexts = {{"1.80.1", true, "14.2.0", "arm64"},
                                                  {"1.79", false, "13.0.0", "X86_64"},
                                                  {"", false, "0.0.0", ""},
                                                  {"1..2", false, "14", "Unknown"}};
  // The document's free texts choose one more.
  if (!read->updates.empty()) contexts.push_back({read->version, false, read->updates[0].date, "arm64"});
  for (const auto& context : contexts) {
    fuzz::require(Validator().validate(*read, context) == outcome(*read, context));
  }
  return 0;
}

#include "Posix/PosixProcessInfo.h"

#include "Platform/PropertyList.h"
#include "Posix/RegularFile.h"

#include <charconv>

#include <sys/utsname.h>

namespace platform::posix {
namespace {

constexpr std::size_t unameFieldBytes = 256;  // _SYS_NAMELEN on a Mac
constexpr std::size_t maximumFileBytes = std::size_t{1} << 20U;

/// Takes the number before the next point off `text`; 0 when there is none.
int takenNumber(std::string_view& text) {
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  const auto point = text.find('.');
  text.remove_prefix(point == std::string_view::npos ? text.size() : point + 1);
  return number < 0 ? 0 : number;
}

}  // namespace

OperatingSystemVersion PosixProcessInfo::operatingSystemVersion() const {
  const auto bytes =
      readRegularFile(sysroot_.machinePath("/System/Library/CoreServices/SystemVersion.plist"), maximumFileBytes);
  if (!bytes) return {};
  const auto plist = PropertyList::parse(*bytes);
  const PropertyList* product = plist ? (*plist)["ProductVersion"] : nullptr;
  if (product == nullptr || product->string() == nullptr) return {};
  std::string_view text = *product->string();
  OperatingSystemVersion version;
  version.major = takenNumber(text);
  version.minor = takenNumber(text);
  version.patch = takenNumber(text);
  return version;
}

std::string PosixProcessInfo::unameMachine() const {
  std::string name;
  const auto file = readRegularFile(sysroot_.machinePath("/System/Library/CoreServices/machine"), maximumFileBytes);
  if (file) {
    name = file->substr(0, file->find('\n'));
  } else {
    utsname information{};
    if (uname(&information) == 0) name = information.machine;
    if (name == "aarch64") name = "arm64";
  }
  name.resize(unameFieldBytes, '\0');
  return name;
}

}  // namespace platform::posix

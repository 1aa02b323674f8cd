#include "Extensions/StringExtensions.h"

#include "Platform/UTF8.h"

namespace corvane {

bool isUTF8(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto scalar = platform::firstScalar(bytes);
    if (!scalar || (scalar->value >= 0xD800 && scalar->value <= 0xDFFF)) return false;
    bytes.remove_prefix(scalar->bytes);
  }
  return true;
}

}  // namespace corvane

#pragma once

#include <string>

namespace tools {

/// The platform's wording of an errno, where it differs from this machine's ("Resource busy").
std::string errorText(int code);

}  // namespace tools

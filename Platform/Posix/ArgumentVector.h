#pragma once

#include <string>
#include <vector>

namespace platform::posix {

/// The texts as exec and posix_spawn take them: pointers to each and a null behind the last. They point into `texts`.
inline std::vector<char*> argumentVector(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace platform::posix

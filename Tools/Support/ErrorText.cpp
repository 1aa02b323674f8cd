#include "Support/ErrorText.h"

#include <cerrno>
#include <cstring>

namespace tools {

std::string errorText(int code) {
  switch (code) {
    case EBUSY:
      return "Resource busy";
    case EAGAIN:
      return "Resource temporarily unavailable";
    default:
      return strerror(code);
  }
}

}  // namespace tools

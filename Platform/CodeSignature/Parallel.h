#pragma once

#include <cstddef>
#include <functional>

namespace platform::codesignature {

/// Calls `body` with 0 … count − 1 on as many threads as there are cores, the caller's among them; indices are handed
/// out in order. Stops handing out once a call has answered false. Returns when all calls have returned.
void forEachIndex(std::size_t count, const std::function<bool(std::size_t)>& body);

}  // namespace platform::codesignature

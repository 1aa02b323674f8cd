#pragma once

#include "CodeSignature/Digest.h"
#include "CodeSignature/Failure.h"
#include "CodeSignature/ResourceSeal.h"

#include <functional>
#include <set>
#include <string>

namespace platform::codesignature {

/// Judges nested code: the item `name` in the folder open at `directory`, against its sealed requirement.
using NestedCodeCheck =
    std::function<Result<void>(int directory, const std::string& name, const std::string& requirement)>;

/// Compares everything below the folder open at `root` with the seal: nothing added, altered or missing. Walks first
/// and then hashes what it found on all cores. `mainExecutable` is the path of the executable, which the signature
/// covers itself. errSecCSBadResource and what else the first problem is; the user info names every file at fault.
[[nodiscard]] Result<void> checkResources(int root, const std::string& mainExecutable, const ResourceSeal& seal,
                                          const std::set<HashType>& hashTypes, const NestedCodeCheck& checkNested);

}  // namespace platform::codesignature

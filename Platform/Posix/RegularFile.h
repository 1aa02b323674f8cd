#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

namespace platform::posix {

/// The bytes of a regular file of the machine, or the errno that prevented it: EISDIR for a directory, EACCES for a
/// fifo or device (which is never waited for), EFBIG beyond `maximumBytes`.
std::expected<std::string, int> readRegularFile(const std::string& machinePath, std::size_t maximumBytes);

/// Replaces the file in one step, so that a reader sees the old bytes or the new ones; the new file has mode 0600.
/// Returns 0 or the errno; on failure the old file stands and nothing is left beside it.
int replaceFile(const std::string& machinePath, std::string_view bytes);

/// Creates the folder and the folders above it that are missing. Returns 0 or the errno.
int makeFolders(const std::string& machinePath, unsigned mode);

}  // namespace platform::posix

#pragma once

#include <string>

namespace platform::posix {

/// Copies a file, a link or a whole folder to a place where nothing is: bytes (shared with the source where the file
/// system can), permissions without the set-user and set-group bits, times and extended attributes of the user's. Links
/// are copied as links. Walks by descriptors, so nothing that is exchanged meanwhile leads it out of the tree. Stops at
/// the first failure, leaving what has been copied: 0 or the errno.
int copyTree(const std::string& from, const std::string& to);

/// Copies what is left of one open file to the end of another, sharing it where the file system can: 0 or the errno.
int copyBytes(int from, int to);

/// Removes a file, a link or a folder with everything in it; never follows a link and never enters another file system.
/// Stops at the first failure: 0 or the errno. An entry that somebody else removes or adds meanwhile is no failure in
/// itself; a folder that is not empty in the end is EPERM.
int removeTree(const std::string& path);

}  // namespace platform::posix

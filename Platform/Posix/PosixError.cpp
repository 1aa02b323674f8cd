#include "Posix/PosixError.h"

#include <cerrno>

namespace platform::posix {
namespace {

std::int64_t cocoaCode(int systemError, Access access) {
  const bool reading = access == Access::reading;
  switch (systemError) {
    case ENOENT:
      return reading ? NSFileReadNoSuchFileError : NSFileNoSuchFileError;
    case EPERM:
    case EACCES:
      return reading ? NSFileReadNoPermissionError : NSFileWriteNoPermissionError;
    case ENAMETOOLONG:
      return reading ? NSFileReadInvalidFileNameError : NSFileWriteInvalidFileNameError;
    case EFBIG:
      return reading ? NSFileReadTooLargeError : NSFileWriteUnknownError;
    case EEXIST:
      return reading ? NSFileReadUnknownError : NSFileWriteFileExistsError;
    case ENOSPC:
    case EDQUOT:
      return reading ? NSFileReadUnknownError : NSFileWriteOutOfSpaceError;
    case EROFS:
      return reading ? NSFileReadUnknownError : NSFileWriteVolumeReadOnlyError;
    default:
      return reading ? NSFileReadUnknownError : NSFileWriteUnknownError;
  }
}

}  // namespace

int darwinErrorNumber(int systemError) {
  // Up to ERANGE (34) the two systems agree, but for EDEADLK and EAGAIN.
  switch (systemError) {
    case EDEADLK:
      return 11;
    case EAGAIN:
      return 35;
    case EINPROGRESS:
      return 36;
    case EALREADY:
      return 37;
    case ENOTSOCK:
      return 38;
    case EMSGSIZE:
      return 40;
    case EOPNOTSUPP:
      return 45;
    case EADDRINUSE:
      return 48;
    case EADDRNOTAVAIL:
      return 49;
    case ENETDOWN:
      return 50;
    case ENETUNREACH:
      return 51;
    case ECONNABORTED:
      return 53;
    case ECONNRESET:
      return 54;
    case ENOBUFS:
      return 55;
    case ETIMEDOUT:
      return 60;
    case ECONNREFUSED:
      return 61;
    case ELOOP:
      return 62;
    case ENAMETOOLONG:
      return 63;
    case EHOSTUNREACH:
      return 65;
    case ENOTEMPTY:
      return 66;
    case EDQUOT:
      return 69;
    case ESTALE:
      return 70;
    case ENOSYS:
      return 78;
    case EOVERFLOW:
      return 84;
    default:
      return systemError;
  }
}

NSError cocoaError(int systemError, Access access, const std::string& path) {
  return NSError(NSCocoaErrorDomain, cocoaCode(systemError, access), {{std::string(NSFilePathErrorKey), path}})
      .withUnderlying(NSError(NSPOSIXErrorDomain, darwinErrorNumber(systemError)));
}

}  // namespace platform::posix

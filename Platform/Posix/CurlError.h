#pragma once

#include "Platform/NSError.h"

#include <curl/curl.h>

namespace platform::posix {

/// The NSURLErrorDomain error for a transfer that curl gave up: the one table of its codes. `systemError` is the errno
/// of the failed connection (CURLINFO_OS_ERRNO), 0 when there is none.
NSError urlError(CURLcode code, long systemError);

/// A body that is longer than its reader takes.
NSError dataTooLongError();

/// The same for a file: URL that could not be read.
NSError fileURLError(int systemError);

}  // namespace platform::posix

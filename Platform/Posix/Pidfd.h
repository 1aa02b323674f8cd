#pragma once

// The C library's header declares these functions without saying that they are C.
extern "C" {
#include <sys/pidfd.h>
}

#pragma once

#include <csignal>

#include <spawn.h>

namespace platform::posix {

/// posix_spawn's two option objects. Every child starts with the system's signal handling, whatever this process or a
/// library of its ignores or blocks; what else it is to get, its starter adds.
class SpawnOptions {
 public:
  /// `flags`: POSIX_SPAWN_SETPGROUP for a process group of its own, POSIX_SPAWN_SETSID for a session.
  explicit SpawnOptions(short flags = 0) {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, static_cast<short>(flags | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
  }
  SpawnOptions(const SpawnOptions&) = delete;
  SpawnOptions& operator=(const SpawnOptions&) = delete;
  ~SpawnOptions() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }

  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};
};

}  // namespace platform::posix

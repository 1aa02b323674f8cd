#pragma once

#include "Rehearsal/Transcript.h"

#include <filesystem>
#include <string>

namespace rehearsal {

/// What a rehearsal needs to know of the build it rehearses.
struct Stage {
  std::filesystem::path prefix;  // where the build is installed: the agent's bundle, sysroot/, Orvik.app
  bool keepsMac = false;         // leave the stand-in Mac behind to be looked at
};

/// Sets up a stand-in Mac with an older main application, serves a list that asks for a dry run over TLS, starts the
/// installed agent, shows its records as they come, asks it to quit. True when every step happened as it should;
/// otherwise the transcript says which did not.
bool rehearseDryRun(const Stage& stage, Transcript& transcript);

}  // namespace rehearsal

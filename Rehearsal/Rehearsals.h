#pragma once

#include "Rehearsal/Scene.h"
#include "Rehearsal/Transcript.h"

#include <filesystem>

namespace rehearsal {

/// Each plays one story on a stand-in Mac with the installed agent, and shows it. Throws Failure at the first step that
/// does not happen.

/// A list that asks for a dry run.
void rehearseDryRun(const Stage& stage, Transcript& transcript);

/// A list that asks for an install: a newer application is packed into a signed, compressed disk image and served; the
/// old one runs, is replaced, and the new one is started.
void rehearseInstall(const Stage& stage, Transcript& transcript);

/// The application updates itself on two Macs and comes back on one: the agent reports the other, two minutes later, in
/// real time.
void rehearseUpdateWatchdog(const Stage& stage, Transcript& transcript);

/// The application has been removed: the agent removes itself, a minute after it first missed it, in real time.
void rehearseSelfRemoval(const Stage& stage, Transcript& transcript);

/// A list, and perhaps an image, of the user's own.
struct OwnFiles {
  std::filesystem::path list;
  std::filesystem::path image;    // served for every install URL of the list; may be empty
  std::filesystem::path anchors;  // certificates that play the platform vendor's root; empty for the real one
};

/// Shows what the agent makes of them. A check that ends in an error is a Failure.
void rehearseOwnFiles(const Stage& stage, const Setting& setting, const OwnFiles& files, Transcript& transcript);

}  // namespace rehearsal

#pragma once

#include "Platform/Bundle.h"
#include "Posix/Sysroot.h"

namespace platform::posix {

/// The `X.app` that an executable at X.app/Contents/MacOS/<name> belongs to; absent for any other path.
std::optional<std::string> bundlePathOfExecutable(std::string_view executablePath);

/// The information dictionary of the bundle at a path of the machine; absent when there is none to be read.
std::optional<PropertyList> informationDictionary(const std::string& bundlePath);

/// CFBundleIdentifier of an information dictionary.
std::optional<std::string> bundleIdentifier(const PropertyList& informationDictionary);

/// The bundle of the running executable, by the path that the kernel knows it by.
Bundle makeMainBundle(const Sysroot& sysroot);

/// The same for an executable at this path.
Bundle makeBundle(const std::string& executablePath, const Sysroot& sysroot);

}  // namespace platform::posix

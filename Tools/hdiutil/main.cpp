#include "hdiutil/Hdiutil.h"

int main(int argc, char** argv) {
  return tools::hdiutil(platform::posix::Machine::fromEnvironment(), {argv + 1, argv + argc});
}

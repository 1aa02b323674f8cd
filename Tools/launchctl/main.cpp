#include "launchctl/Launchctl.h"

int main(int argc, char** argv) {
  return tools::launchctl(platform::posix::Machine::fromEnvironment(), {argv + 1, argv + argc});
}

#include "open/Open.h"

int main(int argc, char** argv) {
  return tools::open(platform::posix::Machine::fromEnvironment(), {argv + 1, argv + argc});
}

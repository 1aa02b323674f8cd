#include "gktool/Gktool.h"

int main(int argc, char** argv) {
  return tools::gktool(platform::posix::Machine::fromEnvironment(), {argv + 1, argv + argc});
}

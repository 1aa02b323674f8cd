#include "xattr/Xattr.h"

int main(int argc, char** argv) {
  return tools::xattr(platform::posix::Machine::fromEnvironment(), {argv + 1, argv + argc});
}

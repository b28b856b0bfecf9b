#include "fuzz/support/Require.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {

void Fail(const std::string& message) {
  static_cast<void>(std::fprintf(stderr, "fuzz: %s\n", message.c_str()));
  std::abort();
}

}  // namespace fuzz

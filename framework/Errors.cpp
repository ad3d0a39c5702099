#include "framework/Errors.h"

#include <cstdio>
#include <cstdlib>

namespace Vix {

void notAllowed(std::string_view condition) {
  throw RangeError(std::string(condition) + " not allowed");
}

void assertionFailed(const char* text, const char* file, int line) {
  std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", text, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Vix

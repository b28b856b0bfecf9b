#include "featurehost/src/lint/Number.h"

#include <cerrno>
#include <cstdlib>

namespace featurehost::lint {

Number ReadNumber(const std::string& text) {
  constexpr int kDecimal = 10;
  Number number;
  char* end = nullptr;
  errno = 0;
  number.value = std::strtoll(text.c_str(), &end, kDecimal);
  number.saturated = errno == ERANGE;
  number.found = end != text.c_str();
  number.rest = end;
  return number;
}

}  // namespace featurehost::lint

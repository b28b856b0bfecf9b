#include "SWLInfra/src/Text.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

TInt32 DecimalInt32(const std::string& text) {
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<TInt32>(std::clamp<long long>(number, std::numeric_limits<TInt32>::min(),
                                                   std::numeric_limits<TInt32>::max()));
}

#pragma once

#include <string>

namespace faults {

inline bool BeginsWith(const std::string& text, const std::string& beginning) {
  return text.rfind(beginning, 0) == 0;
}

}  // namespace faults

#pragma once

#include <string>

namespace featurehost::lint {

/** A decimal number at the begin of a text, as the module finds it. */
struct Number {
  bool found = false;      ///< there is a number
  long long value = 0;     ///< saturated
  bool saturated = false;  ///< the text has more digits than 64 bits can hold
  std::string rest;        ///< what follows the number; the whole text when there is none
};

Number ReadNumber(const std::string& text);

}  // namespace featurehost::lint

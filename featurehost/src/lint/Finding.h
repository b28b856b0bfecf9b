#pragma once

#include <string>

#include "featurehost/src/lint/Kind.h"

namespace featurehost::lint {

/** Something in an update's configuration, or on the unit, that stands in the update's way. */
struct Finding {
  Kind kind;
  std::string feature;
  std::string item;      ///< empty where it is about the whole list
  std::string property;  ///< the whole key; empty where it is about none
  std::string value;     ///< of the property, or what else it is about: a tool, a path
  std::string why;       ///< what happens, and why that matters
  std::string instead;   ///< what to write or to do
};

}  // namespace featurehost::lint

#pragma once

#include <string>

namespace featurehost::lint {

/** Whether mount would look a device up by its label or number, as in "LABEL=data". */
bool IsDeviceTag(const std::string& text);

}  // namespace featurehost::lint

#pragma once

#include <functional>

namespace featurehost {

/**
 * Poll a condition until it holds, for two seconds at most; it is looked at once more when they are
 * over. @return whether it came to hold.
 */
bool WaitUntil(const std::function<bool()>& condition);

}  // namespace featurehost

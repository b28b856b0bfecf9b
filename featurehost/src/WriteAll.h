#pragma once

#include <string_view>

namespace featurehost {

/** Write everything, in as many pieces as it takes. @return 0, or the errno value of a failure. */
int WriteAll(int descriptor, std::string_view bytes);

}  // namespace featurehost

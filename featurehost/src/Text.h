#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace featurehost {

/** The text with every control character shown as an escape, so that it takes one line. */
std::string OneLine(std::string_view text);

/** What an errno value means, in words. */
std::string ErrorText(int number);

/** A duration as minutes and seconds, "3:07", or with hours, "1:03:07". */
std::string Clock(std::chrono::milliseconds duration);

}  // namespace featurehost

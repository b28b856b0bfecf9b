#pragma once

#include <cstdint>
#include <string>

namespace fuzz {

/** The C string in a text that may hold NULs. */
std::string UpToNul(const std::string& text);

/** How many characters of the text a decimal number at its start takes; 0 when there is none. */
std::size_t NumberLength(const std::string& text);

/** The number at the start of a text, worked out digit by digit, saturating at 64 and at 32 bits.
 */
std::int64_t ExpectedInt64(const std::string& text);
std::int32_t ExpectedInt32(const std::string& text);

}  // namespace fuzz

#pragma once

#include <string>

#include "host/Types.h"

/** The bytes of a string, as the file utilities and the command runner take them. */
inline const TChr* Bytes(const std::string& text) {
  return reinterpret_cast<const TChr*>(text.c_str());
}

/** The same for operations whose parameters are not const, though they change nothing. */
inline TChr* Bytes(std::string& text) {
  return reinterpret_cast<TChr*>(text.data());
}

/**
 * The decimal number at the start of a text, as strtol reads it on the 32-bit unit: no number
 * gives 0, what follows the number is ignored, and a number out of range saturates. The width is
 * fixed here so that a 64-bit build gives the same results.
 */
TInt32 DecimalInt32(const std::string& text);

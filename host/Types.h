#pragma once

#include <cstdint>
#include <string>

/** Signed 32-bit number. */
using TInt32 = std::int32_t;
/** Unsigned 32-bit number. */
using TUint32 = std::uint32_t;
/** Unsigned 8-bit number. */
using TUint8 = std::uint8_t;
/** One byte of a NUL-terminated byte string (paths, devices, command lines). */
using TChr = unsigned char;

/** Truth value of the contract. Any value other than zero counts as true. */
using TBool = std::int32_t;
constexpr TBool EFalse = 0;
constexpr TBool ETrue = 1;

/**
 * A feature's identifier: a byte string of 1 to 63 bytes, compared byte for byte.
 * Longer ids are cut to 63 bytes in the payload records (see Event.h).
 */
using TFeatureId = std::string;

static_assert(sizeof(TChr) == 1 && sizeof(TUint8) == 1, "bytes are 8 bits wide");
static_assert(sizeof(TBool) == 4 && sizeof(TUint32) == 4, "words are 32 bits wide");

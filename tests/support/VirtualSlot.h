#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace support {

/**
 * The place of a virtual operation in its class's table, the two entries of the virtual destructor
 * included, as the Itanium C++ ABI encodes it in a pointer to member. The table is what a host
 * that was built separately calls through.
 */
template <typename TMember>
std::size_t VirtualSlot(TMember member) {
  std::uintptr_t word = 0;
  std::memcpy(&word, &member, sizeof word);
  // The lowest bit says "virtual" on most machines; ARM keeps that elsewhere.
  return (word & ~std::uintptr_t{1}) / sizeof(void*);
}

/** The first slot after the destructor's. */
constexpr std::size_t KFirstSlot = 2;

}  // namespace support

#pragma once

#include <cstdint>

#include "host/Event.h"

/** The filter of a repeating timer; the period is in milliseconds. */
inline TEvent RepeatingTimer(TUint32 period) {
  // The fourth word of a timer filter is the number 1, "repeating", not an address.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return TEvent{EEventTimer, 0, period, reinterpret_cast<const void*>(std::uintptr_t{1})};
}

/** The filter of a descriptor's readability. */
inline TEvent Readable(int descriptor) {
  return TEvent{EEventDescriptor, static_cast<TUint32>(descriptor), 0, nullptr};
}

#pragma once

#include "host/Types.h"

/**
 * Pause the calling thread.
 *
 * @param duration  in microseconds. The pause is at least that long, also when signals arrive.
 */
void platSleep(TUint32 duration);

/**
 * Copy a NUL-terminated string into a bounded field.
 *
 * At most count bytes are written, the terminating NUL included; a longer source is cut. The
 * result is always terminated when count is at least 1; with a count of 0 nothing is written.
 * Bytes of the field behind the terminator are not touched.
 */
void platSafecopy(char* destination, const char* source, TUint32 count);

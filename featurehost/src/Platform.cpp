#include "host/Platform.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include "featurehost/src/ProcessGuard.h"

void platSleep(TUint32 duration) {
  constexpr TUint32 kPerSecond = 1000000;
  constexpr long kNanoseconds = 1000;
  constexpr long kNanosecondsPerSecond = 1000000000;
  featurehost::EndClone();

  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += static_cast<time_t>(duration / kPerSecond);
  end.tv_nsec += static_cast<long>(duration % kPerSecond) * kNanoseconds;
  if (end.tv_nsec >= kNanosecondsPerSecond) {
    ++end.tv_sec;
    end.tv_nsec -= kNanosecondsPerSecond;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

void platSafecopy(char* destination, const char* source, TUint32 count) {
  if (count == 0) {
    return;
  }
  const std::size_t length = strnlen(source, count - 1);
  std::memcpy(destination, source, length);
  destination[length] = '\0';
}

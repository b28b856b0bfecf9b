#include "tests/faults/WallClock.h"

#include <atomic>
#include <ctime>
#include <dlfcn.h>
#include <sys/time.h>

namespace {

constexpr time_t kDay = 24 * 60 * 60;

std::atomic<time_t> behind{0};  // the helpers' threads look at the clock, too

template <typename TFunction>
TFunction* Next(const char* name) {
  return reinterpret_cast<TFunction*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand before the C library's for the whole process, the libraries included.
extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const real = Next<int(clockid_t, timespec*)>("clock_gettime");
  const int result = real(clock, now);
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
    now->tv_sec -= behind;
  }
  return result;
}

int gettimeofday(timeval* now, void* zone) noexcept {
  static auto* const real = Next<int(timeval*, void*)>("gettimeofday");
  const int result = real(now, zone);
  now->tv_sec -= behind;
  return result;
}

time_t time(time_t* now) noexcept {
  static auto* const real = Next<time_t(time_t*)>("time");
  const time_t result = real(nullptr) - behind;
  if (now != nullptr) {
    *now = result;
  }
  return result;
}

}  // extern "C"

namespace faults {

void SetWallClockBack() {
  behind = kDay;
}

}  // namespace faults

#include "featurehost/src/SourcePace.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace featurehost {

namespace {

constexpr std::chrono::milliseconds kShortest{1};
constexpr std::chrono::milliseconds kLongest{1000};

bool HasPosition(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode));
}

}  // namespace

SourcePace::SourcePace(int descriptor) : descriptor_(descriptor), mark_(Look(descriptor)) {}

void SourcePace::BeforeTurn() {
  moved_ = MovedSince();
  mark_ = Look(descriptor_);
}

std::chrono::milliseconds SourcePace::AfterTurn() {
  moved_ = moved_ || MovedSince();
  mark_ = Look(descriptor_);
  const auto longest = BytesWait() ? kShortest : kLongest;
  pause_ = moved_ ? std::chrono::milliseconds{0} : std::clamp(pause_ * 2, kShortest, longest);
  return pause_;
}

bool SourcePace::MovedSince() const {
  const Mark now = Look(descriptor_);
  return !now.has_value() || now != mark_;
}

bool SourcePace::BytesWait() const {
  return !HasPosition(descriptor_) && mark_.has_value() && *mark_ > 0;
}

SourcePace::Mark SourcePace::Look(int descriptor) {
  if (HasPosition(descriptor)) {
    return lseek(descriptor, 0, SEEK_CUR);
  }
  int waiting = 0;
  return ioctl(descriptor, FIONREAD, &waiting) == 0 ? Mark(waiting) : std::nullopt;
}

}  // namespace featurehost

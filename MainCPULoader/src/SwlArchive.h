#pragma once

#include "host/Types.h"

/** Results of the host's archives. Their meaning is the host's; here they only have numbers. */
class ISwlArchive {
 public:
  enum TSwlArchiveError : TInt32 {};

  ISwlArchive() = delete;
};

#pragma once

#include "host/Types.h"

/** Results of the host's file lists. Their meaning is the host's; here they only have numbers. */
class ISwlFileList {
 public:
  enum TSwlFileListError : TInt32 {};

  ISwlFileList() = delete;
};

#pragma once

#include <cstddef>

#include "host/Types.h"

/**
 * A shell command line in a buffer of fixed size. One that does not fit is never cut short: it
 * keeps its length, for the report, and has no text.
 */
class CCommandLine {
 public:
  /** Bytes of the buffer, the terminating NUL included. */
  static constexpr std::size_t KCapacity = 510;

  /** @param pieces  NUL-terminated texts, not null, put one behind the other. */
  template <typename... TPieces>
  explicit CCommandLine(const TPieces*... pieces) {
    (Append(reinterpret_cast<const char*>(pieces)), ...);
  }

  /** Whether the whole command is there; otherwise it must not be run. */
  bool Fits() const { return iLength < KCapacity; }
  /** Length of the whole command in bytes, also when it does not fit. */
  TUint32 Length() const { return static_cast<TUint32>(iLength); }
  /** The command, NUL-terminated and valid as long as this object; empty when it does not fit. */
  const TChr* Text() const { return reinterpret_cast<const TChr*>(iText); }

 private:
  void Append(const char* piece);

  char iText[KCapacity] = {};
  std::size_t iLength = 0;
};

#include "SWLInfra/src/CommandLine.h"

#include <cstring>

void CCommandLine::Append(const char* piece) {
  const std::size_t length = std::strlen(piece);
  const std::size_t start = iLength;
  iLength += length;
  if (Fits()) {
    std::memcpy(iText + start, piece, length + 1);
  } else {
    iText[0] = '\0';
  }
}

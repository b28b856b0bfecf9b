// What df prints about a file system, as the file handler reads it. The input is df's line.

#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <string>

#include "SWLInfra/src/FileHandler.h"
#include "fuzz/support/Expected.h"
#include "fuzz/support/FakeSystem.h"

namespace {

constexpr const char* kBlanks = " \t\n\v\f\r";

/** The fourth word, as far as a word of ten characters can hold it; empty when there is none. */
std::string FourthWord(const std::string& text) {
  std::size_t begin = 0;
  std::size_t end = 0;
  for (int word = 0; word < 4; ++word) {
    begin = text.find_first_not_of(kBlanks, end);
    if (begin == std::string::npos) {
      return "";
    }
    end = std::min(text.find_first_of(kBlanks, begin), text.size());
  }
  return fuzz::UpToNul(text.substr(begin, std::min<std::size_t>(end - begin, 10)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  FuzzedDataProvider nothing(nullptr, 0);
  fuzz::FakeSystem system(nothing);
  system.files["/tmp/CalculateDiskSpace"] = text;

  TUint32 available = 4711;
  const auto result =
      IFileHandler::AvailableSpace(reinterpret_cast<const TChr*>("/mnt"), &available);

  fuzz::Require(result == IFileHandler::EFileHndlOk, "result");
  const auto expected = static_cast<TUint32>(fuzz::ExpectedInt32(FourthWord(text)));
  fuzz::Require(available == expected,
                "read " + std::to_string(available) + " instead of " + std::to_string(expected));
  system.CheckNothingIsLeft();
  return 0;
}

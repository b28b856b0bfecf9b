// Block sizes as the dd wrapper takes them for bytes. The input is the text.

#include <cstdint>
#include <string>
#include <utility>

#include "SWLInfra/src/DDWrapper.h"
#include "fuzz/support/Expected.h"
#include "fuzz/support/Require.h"

namespace {

std::uint32_t Multiplier(const std::string& suffix) {
  const std::pair<const char*, std::uint32_t> known[] = {
      {"c", 1},        {"w", 2},       {"b", 512},         {"kb", 1000},      {"k", 1024},
      {"mb", 1000000}, {"m", 1048576}, {"gb", 1000000000}, {"g", 1073741824},
  };
  for (const auto& [text, multiplier] : known) {
    if (suffix == text) {
      return multiplier;
    }
  }
  return 0;
}

std::uint32_t Expected(const std::string& text) {
  std::size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    ++digits;
  }
  std::string suffix;
  for (const char letter : text.substr(digits)) {
    suffix += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  }
  const std::uint32_t multiplier = Multiplier(suffix);
  if (multiplier == 0) {
    return 512;
  }
  const std::int32_t number = digits == 0 ? 1 : fuzz::ExpectedInt32(text.substr(0, digits));
  return static_cast<std::uint32_t>(number) * multiplier;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz::UpToNul(std::string(reinterpret_cast<const char*>(data), size));
  const unsigned actual =
      CDDWrapper::BlockSizeInBytes(reinterpret_cast<const unsigned char*>(text.c_str()));
  fuzz::Require(actual == Expected(text), "bytes of '" + text + "': " + std::to_string(actual));
  return 0;
}

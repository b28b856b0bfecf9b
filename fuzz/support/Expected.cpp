#include "fuzz/support/Expected.h"

#include <algorithm>
#include <limits>

namespace fuzz {

namespace {

constexpr const char* kBlanks = " \t\n\v\f\r";
constexpr const char* kDigits = "0123456789";

/** Where the sign and the digits begin and end; all equal when there is no number. */
struct Number {
  bool negative = false;
  std::size_t begin = 0;
  std::size_t end = 0;
};

Number Find(const std::string& text) {
  Number number;
  std::size_t at = std::min(text.find_first_not_of(kBlanks), text.size());
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    number.negative = text[at] == '-';
    ++at;
  }
  const std::size_t end = std::min(text.find_first_not_of(kDigits, at), text.size());
  if (end > at) {
    number.begin = at;
    number.end = end;
  }
  return number;
}

}  // namespace

std::string UpToNul(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

std::size_t NumberLength(const std::string& text) {
  return Find(text).end;
}

std::int64_t ExpectedInt64(const std::string& text) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
  const Number number = Find(text);
  std::uint64_t magnitude = 0;  // at most one more than fits
  for (std::size_t at = number.begin; at < number.end; ++at) {
    const auto digit = static_cast<std::uint64_t>(text[at] - '0');
    magnitude = magnitude > (kMost + 1 - digit) / 10 ? kMost + 1 : magnitude * 10 + digit;
  }
  if (number.negative) {
    return magnitude > kMost ? std::numeric_limits<std::int64_t>::min()
                             : -static_cast<std::int64_t>(magnitude);
  }
  return static_cast<std::int64_t>(std::min(magnitude, kMost));
}

std::int32_t ExpectedInt32(const std::string& text) {
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(ExpectedInt64(text), std::numeric_limits<std::int32_t>::min(),
                               std::numeric_limits<std::int32_t>::max()));
}

}  // namespace fuzz

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iterator>
#include <string>

#include "featurehost/src/lint/Checks.h"
#include "featurehost/src/lint/Number.h"

namespace featurehost::lint {

namespace {

struct Suffix {
  const char* text;
  std::uint64_t multiplier;
};

/** What every dd takes, and the module reads alike. The module itself ignores the case. */
constexpr Suffix kSuffixes[] = {
    {"c", 1},     {"w", 2},       {"b", 512},      {"k", 1024},       {"K", 1024},
    {"kB", 1000}, {"M", 1048576}, {"MB", 1000000}, {"G", 1073741824}, {"GB", 1000000000},
};

constexpr const char* kAdvice = "512 to 32k with one of the suffixes c, w, b, k, such as \"32k\"";
constexpr std::uint64_t kLargestNumber = 0x7fffffff;
constexpr std::uint64_t kLargest32 = 0xffffffff;
constexpr std::uint64_t kLongestWhole = 32768;  // of what a pipe gives in one read
constexpr std::uint64_t kBare = 512;

std::string Lower(std::string text) {
  for (char& letter : text) {
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  }
  return text;
}

/** A block size, taken apart. */
struct BlockSize {
  std::uint64_t number = 1;
  std::string suffix;
  const Suffix* exact = nullptr;  // the suffix as it stands
  const Suffix* known = nullptr;  // the suffix as the module reads it, where dd means the same
  bool hasDigits = false;
};

BlockSize Parse(const std::string& text) {
  BlockSize size;
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  size.hasDigits = digits > 0;
  if (size.hasDigits) {
    size.number = static_cast<std::uint64_t>(ReadNumber(text.substr(0, digits)).value);
  }
  size.suffix = text.substr(digits);
  for (const Suffix& suffix : kSuffixes) {
    if (size.suffix == suffix.text) {
      size.exact = &suffix;
      size.known = &suffix;
      return size;
    }
    // A capital B alone is a byte to dd.
    if (size.suffix != "B" && Lower(size.suffix) == Lower(suffix.text)) {
      size.known = &suffix;
    }
  }
  return size;
}

/** What every dd takes: a larger one may be beyond its numbers, or beyond the unit's memory. */
bool IsUsual(const BlockSize& size) {
  return size.hasDigits && size.exact != nullptr && size.number > 0 &&
         size.number <= kLongestWhole / size.exact->multiplier;
}

bool IsRefused(const Subject& subject, const BlockSize& size, const std::string& text) {
  return !IsUsual(size) && !subject.environment.TakesBlockSize(text).value_or(true);
}

void CheckKnown(const Subject& subject, const Findings::Place& place, const BlockSize& size) {
  const std::uint64_t multiplier = size.known->multiplier;
  if (size.number > kLargestNumber || size.number > kLargest32 / multiplier) {
    subject.findings.Add(Kind::kBlockSizeWraps, place,
                         "the module counts blocks of this size modulo 2^32 bytes, so the progress "
                         "stays at 0 or is off",
                         kAdvice);
  } else if (size.number * multiplier > kLongestWhole) {
    subject.findings.Add(Kind::kBlockSizeShortReads, place,
                         "a pipe seldom gives that much in one read, and blocks that are not full "
                         "do not count: the progress stays at or near 0 until the end",
                         kAdvice);
  }
}

void CheckBlockSize(const Subject& subject, const Findings::Place& place) {
  const BlockSize size = Parse(place.value);
  if (IsRefused(subject, size, place.value)) {
    subject.findings.Add(Kind::kBlockSizeRefused, place,
                         "this unit's dd does not take it, and the item fails", kAdvice);
  } else if (size.suffix.empty()) {
    if (size.number != kBare) {
      subject.findings.Add(Kind::kBlockSizeBare, place,
                           "dd takes a bare number as bytes, the module counts such blocks as 512 "
                           "bytes: the progress is off by that ratio",
                           kAdvice);
    }
  } else if (size.known == nullptr) {
    subject.findings.Add(Kind::kBlockSizeMixed, place,
                         "dd reads it its own way, the module counts such blocks as 512 bytes or "
                         "takes the letter for another: the progress is off",
                         kAdvice);
  } else {
    CheckKnown(subject, place, size);
  }
}

}  // namespace

void CheckBlockSizes(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    const std::string key = item.Key("blocksize");
    const std::string text = subject.update.Text(key);
    if (item.kind == ItemKind::kImage && !text.empty()) {
      CheckBlockSize(subject, {item.name, key, text});
    }
  }
}

}  // namespace featurehost::lint

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "featurehost/src/lint/Checks.h"
#include "featurehost/src/lint/Number.h"

namespace featurehost::lint {

namespace {

constexpr long long kLargest = std::numeric_limits<std::int32_t>::max();
constexpr long long kSlow = 1048576;

/** The number that is copied with, when the text says it properly. */
std::optional<std::uint64_t> CheckNumber(const Subject& subject, const Item& item,
                                         const char* suffix) {
  const std::string key = item.Key(suffix);
  const auto text = subject.update.Value(key);
  if (!text.has_value()) {
    return std::nullopt;
  }
  if (text->empty() && std::string(suffix) == "offset") {
    return 0;  // may be empty, and is read as what is meant
  }
  const Number number = ReadNumber(*text);
  if (!number.found || number.rest.find_first_not_of(" \t\r\n") != std::string::npos) {
    subject.findings.Add(Kind::kNumberUnparsable, {item.name, key, *text},
                         "this is read as " + std::to_string(number.value) +
                             ": only decimal digits count, and nothing behind them",
                         "the number in decimal digits");
    return std::nullopt;
  }
  if (number.value < 0) {
    subject.findings.Add(Kind::kNumberNegative, {item.name, key, *text},
                         item.kind == ItemKind::kFactoryData
                             ? "dd refuses a negative number, and the item fails"
                             : "a negative number is taken for one near 4 GiB: nothing is copied, "
                               "or too much",
                         "a number from 0 to 2147483647");
    return std::nullopt;
  }
  if (number.value > kLargest) {
    subject.findings.Add(Kind::kNumberTooLarge, {item.name, key, *text},
                         "numbers end at 2147483647, and that is what is used instead",
                         "a number from 0 to 2147483647");
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(number.value);
}

void CheckRange(const Subject& subject, const Item& item, std::uint64_t offset,
                std::uint64_t size) {
  const std::string source = subject.update.Text(item.Key("source"));
  const FileFacts file = subject.sources.Of(source).file;
  if (file.type == FileFacts::Type::kFile && offset + size > file.size) {
    subject.findings.Add(
        Kind::kRangeBeyondSource, {item.name, item.Key("size"), std::to_string(size)},
        "offset and size end at byte " + std::to_string(offset + size) + ", but the source has " +
            std::to_string(file.size) + " bytes: less is copied, and the item succeeds",
        "an offset and a size within the source");
  }
}

void CheckRegion(const Subject& subject, const Item& item) {
  const auto offset = CheckNumber(subject, item, "offset");
  const auto size = CheckNumber(subject, item, "size");
  if (!size.has_value()) {
    return;
  }
  const std::string key = item.Key("size");
  if (*size == 0) {
    subject.findings.Add(Kind::kSizeZero, {item.name, key, subject.update.Text(key)},
                         "nothing is copied, and the item succeeds", "the number of bytes to copy");
    return;
  }
  if (*size > kSlow) {
    subject.findings.Add(Kind::kSizeBlocksHost, {item.name, key, subject.update.Text(key)},
                         "the copy goes byte by byte and blocks the host's event thread until it "
                         "is done; it is meant for kilobytes",
                         "a raw image for larger data");
  }
  if (offset.has_value()) {
    CheckRange(subject, item, *offset, *size);
  }
}

}  // namespace

void CheckNumbers(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    if (item.kind == ItemKind::kFactoryData || item.kind == ItemKind::kEndOfLineSettings) {
      CheckRegion(subject, item);
    }
  }
}

}  // namespace featurehost::lint

#include <cstdint>
#include <limits>
#include <string>

#include "featurehost/src/lint/Checks.h"
#include "featurehost/src/lint/Number.h"

namespace featurehost::lint {

namespace {

constexpr std::uint64_t kLargest32 = std::numeric_limits<std::uint32_t>::max();

/** An image's size as it is configured, and who uses it. */
struct SizeUse {
  const Item& item;   // the image, or the check where no image is in the list
  std::string check;  // name of the item that checks it; empty for none
  std::string key;
  std::string text;
};

std::string CheckOf(const Update& update, const Item& item) {
  const Item* check = update.Find(ItemKind::kCheck, item.prefix);
  return check == nullptr ? "" : check->name;
}

void ReportZero(const Subject& subject, const SizeUse& use) {
  if (use.check.empty()) {
    subject.findings.Add(Kind::kImageSizeZero, {use.item.name, use.key, use.text},
                         "with a size of 0 there is no progress", "the size of the unpacked image");
  } else {
    subject.findings.Add(Kind::kCheckSizeZero, {use.check, use.key, use.text},
                         "a check of 0 bytes never ends: it neither succeeds nor fails",
                         "the size of the unpacked image");
  }
}

/** Whether the number is one that a size can be. */
bool CheckReading(const Subject& subject, const SizeUse& use, const Number& number) {
  if (!number.rest.empty()) {
    subject.findings.Add(Kind::kNumberUnparsable, {use.item.name, use.key, use.text},
                         "the prepare fails: this must be a decimal number and nothing else",
                         "the size in bytes, such as 25165824");
    return false;
  }
  if (number.value == 0) {
    ReportZero(subject, use);
    return false;
  }
  if ((number.value < 0 || number.saturated) && !use.check.empty()) {
    subject.findings.Add(number.value < 0 ? Kind::kNumberNegative : Kind::kNumberTooLarge,
                         {use.check, use.key, use.text},
                         "the check takes this for more bytes than any image has, and fails",
                         "the size of the unpacked image");
    return false;
  }
  return true;
}

void CheckAgainst(const Subject& subject, const SizeUse& use, std::uint64_t size,
                  const SourceFacts& source) {
  constexpr std::uint64_t kBestRatio = 1032;
  const bool isChecked = !use.check.empty();
  const auto unpacked = source.Unpacked();
  const bool isKnown = source.deep != nullptr && unpacked.has_value();
  const bool isTooLarge = isKnown ? size > *unpacked
                                  : source.ends.has_value() && source.ends->isGzip &&
                                        size / kBestRatio > source.file.size;
  if (isChecked && isTooLarge) {
    subject.findings.Add(Kind::kCheckSizeTooLarge, {use.check, use.key, use.text},
                         isKnown
                             ? "the check fails at the end of the image, which has " +
                                   std::to_string(*unpacked) + " bytes"
                             : "the check fails: a file of " + std::to_string(source.file.size) +
                                   " bytes cannot hold that much",
                         "the size of the unpacked image");
    return;
  }
  // What the trailer says is the length modulo 2^32, and that of the last member.
  if (unpacked.has_value() && *unpacked != (isKnown ? size : size & kLargest32)) {
    subject.findings.Add(
        Kind::kTargetSizeDiffers, {use.item.name, use.key, use.text},
        std::string(isKnown ? "the image has " : "the image's trailer says that it has ") +
            std::to_string(*unpacked) + " bytes: " +
            (isChecked ? "what is behind the smaller size stays unchecked, and a larger one fails"
                       : "the progress is off"),
        "the size of the unpacked image");
  }
}

void CheckSize(const Subject& subject, const SizeUse& use) {
  const Number number = ReadNumber(use.text);
  if (!CheckReading(subject, use, number)) {
    return;
  }
  const std::string key = SourceKey(use.item, subject.update, subject.environment);
  const SourceFacts& source = subject.sources.Of(subject.update.Text(key));
  const auto size = static_cast<std::uint64_t>(number.value);
  const bool isLarge = source.deep != nullptr && source.deep->unpacked > kLargest32;
  if (size > kLargest32 || isLarge) {
    subject.findings.Add(Kind::kImageOver4Gib, {use.item.name, use.key, use.text},
                         "progress is counted in 32 bits: from 4 GiB on the percentage starts "
                         "again at 0",
                         "images below 4 GiB, or patience with the percentage");
  }
  if (number.value > 0 && !number.saturated) {
    CheckAgainst(subject, use, size, source);
  }
}

}  // namespace

void CheckTargetSizes(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    const bool isImage = item.kind == ItemKind::kImage;
    const bool isLoneCheck = item.kind == ItemKind::kCheck &&
                             subject.update.Find(ItemKind::kImage, item.prefix) == nullptr;
    const std::string key = item.Key("targetsize");
    const auto text = subject.update.Value(key);
    if ((isImage || isLoneCheck) && text.has_value()) {
      CheckSize(subject, {item, isImage ? CheckOf(subject.update, item) : item.name, key, *text});
    }
  }
}

}  // namespace featurehost::lint

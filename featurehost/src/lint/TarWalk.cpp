#include "featurehost/src/lint/TarWalk.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace featurehost::lint {

namespace {

// Where the fields of a header stand, and how long they are.
constexpr std::size_t kSizeField = 124;
constexpr std::size_t kSizeLength = 12;
constexpr std::size_t kSumField = 148;
constexpr std::size_t kSumLength = 8;
constexpr std::size_t kTypeField = 156;
constexpr std::size_t kMoreInHeader = 482;  // of a sparse file's map
constexpr std::size_t kMoreInMap = 504;
constexpr unsigned kEndOfArchive = 2;

/** A number in octal digits, or for large ones in binary behind a mark. */
std::optional<std::uint64_t> NumberAt(const unsigned char* field, std::size_t length) {
  constexpr unsigned char kBinary = 0x80;
  constexpr unsigned kByte = 8;
  constexpr unsigned kOctal = 3;
  std::uint64_t number = 0;
  if (field[0] == kBinary) {
    for (std::size_t index = 1; index < length; ++index) {
      if (number >> (64 - kByte) != 0) {
        return std::nullopt;
      }
      number = (number << kByte) | field[index];
    }
    return number;
  }
  std::size_t index = 0;
  while (index < length && field[index] == ' ') {
    ++index;
  }
  for (; index < length && field[index] >= '0' && field[index] <= '7'; ++index) {
    number = (number << kOctal) | (field[index] - std::uint64_t{'0'});
  }
  const bool ended = index == length || field[index] == ' ' || field[index] == '\0';
  return ended ? std::optional(number) : std::nullopt;
}

/** The sum over a header's bytes, its own field taken as blanks; old programs took signed bytes. */
template <typename TByte>
std::int64_t SumOf(const unsigned char* header, std::size_t size) {
  std::int64_t sum = 0;
  for (std::size_t index = 0; index < size; ++index) {
    const bool inField = index >= kSumField && index < kSumField + kSumLength;
    sum += inField ? ' ' : static_cast<TByte>(header[index]);
  }
  return sum;
}

bool IsFile(unsigned char type) {
  return type == '0' || type == '\0' || type == '7' || type == 'S';
}

}  // namespace

void TarWalk::Add(const unsigned char* bytes, std::size_t count) {
  // What comes behind the end is padding, and what comes behind a damage means nothing.
  while (count > 0 && problem_.empty() && zeroBlocks_ < kEndOfArchive) {
    if (filled_ == 0 && data_ > 0 && !inMap_ && count >= kBlock) {
      const std::uint64_t whole = std::min<std::uint64_t>(data_, count / kBlock);
      data_ -= whole;
      position_ += whole * kBlock;
      bytes += whole * kBlock;
      count -= static_cast<std::size_t>(whole * kBlock);
      continue;
    }
    const std::size_t part = std::min(kBlock - filled_, count);
    std::memcpy(block_.data() + filled_, bytes, part);
    filled_ += part;
    bytes += part;
    count -= part;
    if (filled_ == kBlock) {
      TakeBlock();
      filled_ = 0;
      position_ += kBlock;
    }
  }
}

std::string TarWalk::Problem() const {
  if (!problem_.empty()) {
    return problem_;
  }
  if (filled_ != 0 || data_ != 0 || inMap_) {
    return "it ends in the middle of an entry";
  }
  return entries_ == 0 ? "it has no entries" : "";
}

void TarWalk::TakeBlock() {
  if (inMap_) {
    inMap_ = block_[kMoreInMap] != 0;
  } else if (data_ > 0) {
    --data_;
  } else if (std::all_of(block_.begin(), block_.end(),
                         [](unsigned char byte) { return byte == 0; })) {
    ++zeroBlocks_;
  } else {
    zeroBlocks_ = 0;
    TakeHeader();
  }
}

void TarWalk::TakeHeader() {
  const auto sum = NumberAt(block_.data() + kSumField, kSumLength);
  const auto size = NumberAt(block_.data() + kSizeField, kSizeLength);
  const auto wanted = static_cast<std::int64_t>(sum.value_or(0));
  if (!sum.has_value() || !size.has_value() ||
      (wanted != SumOf<unsigned char>(block_.data(), kBlock) &&
       wanted != SumOf<signed char>(block_.data(), kBlock))) {
    problem_ = "no entry begins at byte " + std::to_string(position_);
    return;
  }
  constexpr unsigned char kHardLink = '1';
  const unsigned char type = block_[kTypeField];
  ++entries_;
  data_ = type == kHardLink ? 0 : *size / kBlock + (*size % kBlock != 0 ? 1 : 0);
  contents_ += IsFile(type) ? *size : 0;
  inMap_ = type == 'S' && block_[kMoreInHeader] != 0;
}

}  // namespace featurehost::lint

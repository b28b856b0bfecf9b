#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace featurehost::lint {

/**
 * Walks over the structure of a tar archive, piece by piece: headers with their checksums, and the
 * data between them. What the entries are called and what they hold is not looked at.
 */
class TarWalk {
 public:
  void Add(const unsigned char* bytes, std::size_t count);
  /** After the last piece: what is wrong; empty when the archive is whole. */
  std::string Problem() const;
  /** Bytes of the files so far. */
  std::uint64_t Contents() const { return contents_; }

 private:
  static constexpr std::size_t kBlock = 512;
  using Block = std::array<unsigned char, kBlock>;

  void TakeBlock();
  void TakeHeader();

  Block block_{};
  std::size_t filled_ = 0;      // of the block
  std::uint64_t position_ = 0;  // of the block in the archive
  std::uint64_t data_ = 0;      // blocks of the entry's data that are still to come
  std::uint64_t entries_ = 0;
  std::uint64_t contents_ = 0;
  bool inMap_ = false;       // blocks that describe a sparse file follow
  unsigned zeroBlocks_ = 0;  // in a row; two are the end
  std::string problem_;
};

}  // namespace featurehost::lint

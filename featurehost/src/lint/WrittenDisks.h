#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "featurehost/src/lint/Environment.h"
#include "featurehost/src/lint/Update.h"

namespace featurehost::lint {

/** A whole disk that an image is written to. What partitions it has afterwards is the image's. */
struct WrittenDisk {
  std::string path;  ///< without links
  std::string item;  ///< name of the image
  std::uint64_t size;
};

/** The whole disks that the items of an update list write, as far as the list has been gone
 * through. */
class WrittenDisks {
 public:
  explicit WrittenDisks(const Environment& environment) : environment_(environment) {}

  /** The next item of the list, with its target and what stands there. */
  void Add(const Item& item, const std::string& target, const FileFacts& facts);

  /** The disk on which a partition lies, or would lie; null when no item so far writes it. */
  const WrittenDisk* Of(const std::string& partition) const;

 private:
  const Environment& environment_;
  std::vector<WrittenDisk> disks_;
};

}  // namespace featurehost::lint

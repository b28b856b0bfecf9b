#pragma once

#include <map>
#include <optional>
#include <string>

#include "featurehost/src/lint/DeepFacts.h"
#include "featurehost/src/lint/Environment.h"
#include "featurehost/src/lint/Update.h"

namespace featurehost::lint {

/** What is known of a file that an item reads. */
struct SourceFacts {
  FileFacts file;
  std::optional<GzipEnds> ends;     ///< of a compressed file that can be read
  const DeepFacts* deep = nullptr;  ///< when it has been unpacked

  /** Whether the length in its trailer can be that of all its content. */
  bool HasPlausibleLength() const;
  /** The size unpacked, as far as it is known; without unpacking it is what the trailer says. */
  std::optional<std::uint64_t> Unpacked() const;
};

/** The files that the items read, each looked at once. */
class Sources {
 public:
  /** @param deep  what has been unpacked already. Both must outlive this object. */
  Sources(const Environment& environment, const DeepFactsByPath& deep)
      : environment_(environment), deep_(deep) {}

  const SourceFacts& Of(const std::string& path);

 private:
  const Environment& environment_;
  const DeepFactsByPath& deep_;
  std::map<std::string, SourceFacts> known_;
};

/** The key of the file that an item reads: an image's "altsource" comes first if it is there. */
std::string SourceKey(const Item& item, const Update& update, const Environment& environment);

}  // namespace featurehost::lint

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "featurehost/src/lint/DeepFacts.h"

namespace featurehost::lint {

/** A compressed file to unpack, and what to look for in it. */
struct UnpackRequest {
  std::string path;
  bool isArchive = false;  ///< walk over its tar structure
  std::string checksum;    ///< what form of digest to make; empty or unknown for none
};

/**
 * Unpack a file in memory, a piece at a time, and drop what comes out.
 *
 * @param goOn  called now and then with the bytes of the file that have been read so far; false
 * ends the work.
 * @return what was found; nothing when the work was ended. A file that cannot be read is damaged.
 */
std::optional<DeepFacts> Unpack(const UnpackRequest& request,
                                const std::function<bool(std::uint64_t bytes)>& goOn);

}  // namespace featurehost::lint

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "featurehost/src/Properties.h"
#include "featurehost/src/lint/Environment.h"
#include "featurehost/src/lint/Unpacker.h"

namespace featurehost::lint {

/** A file to unpack, and the item that it belongs to. */
struct UnpackJob {
  std::string item;
  std::uint64_t size;  ///< of the compressed file
  UnpackRequest request;
};

/** Every archive and image of the update that can be read and begins as gzip does, each once. */
std::vector<UnpackJob> WhatToUnpack(const Properties::Values& values,
                                    const Environment& environment);

/**
 * Unpack one after the other.
 *
 * @param goOn  called now and then with the bytes of all files that have been read so far; false
 * ends the work.
 * @return nothing when the work was ended.
 */
std::optional<DeepFactsByPath> UnpackAll(const std::vector<UnpackJob>& jobs,
                                         const std::function<bool(std::uint64_t bytes)>& goOn);

}  // namespace featurehost::lint

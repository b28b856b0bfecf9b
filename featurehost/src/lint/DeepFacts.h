#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace featurehost::lint {

/** What is known of a compressed file that has been unpacked from its begin to its end. */
struct DeepFacts {
  std::string damage;          ///< why it cannot be unpacked; empty when it can
  std::uint64_t unpacked = 0;  ///< bytes
  unsigned members = 0;
  bool zerosBehind = false;  ///< zero bytes behind the last member, which gzip passes over
  bool bytesBehind = false;  ///< other bytes there

  std::string tarProblem;      ///< of an archive; empty when its structure is whole
  std::uint64_t contents = 0;  ///< bytes of the files in an archive

  std::string digest;            ///< of the unpacked bytes, where one was asked for
  std::string compressedDigest;  ///< of the file as it is
};

/** By path. */
using DeepFactsByPath = std::map<std::string, DeepFacts>;

}  // namespace featurehost::lint

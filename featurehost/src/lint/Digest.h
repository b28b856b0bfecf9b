#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace featurehost::lint {

/** A message digest in the making. */
class Digest {
 public:
  Digest() = default;
  virtual ~Digest() = default;

  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  virtual void Add(const unsigned char* bytes, std::size_t count) = 0;
  /** In small hexadecimal digits. To be called once. */
  virtual std::string Take() = 0;

  /**
   * The digest that a checksum is, told by its form: 32 hexadecimal digits for MD5, 40 for SHA-1,
   * 64 for SHA-256. Null when it is none of them.
   */
  static std::unique_ptr<Digest> OfForm(const std::string& checksum);
};

}  // namespace featurehost::lint

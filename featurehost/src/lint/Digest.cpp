#include "featurehost/src/lint/Digest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <md5.h>
#include <sha1.h>
#include <sha2.h>
#include <sys/types.h>

namespace featurehost::lint {

namespace {

template <typename TContext, void (*kInit)(TContext*),
          void (*kUpdate)(TContext*, const std::uint8_t*, std::size_t), typename TEnd, TEnd kEnd,
          std::size_t kSize>
class DigestOf : public Digest {
 public:
  DigestOf() { kInit(&context_); }

  void Add(const unsigned char* bytes, std::size_t count) override {
    kUpdate(&context_, bytes, count);
  }

  std::string Take() override {
    std::array<char, 2 * kSize + 1> text{};
    kEnd(&context_, text.data());
    return text.data();
  }

 private:
  TContext context_{};
};

using Md5 = DigestOf<MD5_CTX, MD5Init, MD5Update, decltype(&MD5End), &MD5End, MD5_DIGEST_LENGTH>;
using Sha1 =
    DigestOf<SHA1_CTX, SHA1Init, SHA1Update, decltype(&SHA1End), &SHA1End, SHA1_DIGEST_LENGTH>;
using Sha256 = DigestOf<SHA2_CTX, SHA256Init, SHA256Update, decltype(&SHA256End), &SHA256End,
                        SHA256_DIGEST_LENGTH>;

}  // namespace

std::unique_ptr<Digest> Digest::OfForm(const std::string& checksum) {
  const bool isHexadecimal = std::all_of(checksum.begin(), checksum.end(), [](char letter) {
    return std::isxdigit(static_cast<unsigned char>(letter)) != 0;
  });
  if (!isHexadecimal) {
    return nullptr;
  }
  constexpr std::size_t kDigits = 2;  // for each byte
  switch (checksum.size()) {
    case kDigits* MD5_DIGEST_LENGTH:
      return std::make_unique<Md5>();
    case kDigits* SHA1_DIGEST_LENGTH:
      return std::make_unique<Sha1>();
    case kDigits* SHA256_DIGEST_LENGTH:
      return std::make_unique<Sha256>();
    default:
      return nullptr;
  }
}

}  // namespace featurehost::lint

#include "featurehost/src/lint/Unpacker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "featurehost/src/Text.h"
#include "featurehost/src/lint/Digest.h"
#include "featurehost/src/lint/TarWalk.h"

namespace featurehost::lint {

namespace {

constexpr std::size_t kPiece = 262144;
constexpr int kGzipOnly = 16 + MAX_WBITS;
constexpr unsigned char kMagic = 0x1f;

/** Unpacks a file that is fed to it, and keeps what is to be known of it. */
class Unpacking {
 public:
  explicit Unpacking(const UnpackRequest& request)
      : isArchive_(request.isArchive),
        digest_(Digest::OfForm(request.checksum)),
        compressedDigest_(Digest::OfForm(request.checksum)),
        output_(kPiece) {
    ready_ = inflateInit2(&stream_, kGzipOnly) == Z_OK;
  }
  ~Unpacking() { inflateEnd(&stream_); }

  Unpacking(const Unpacking&) = delete;
  Unpacking& operator=(const Unpacking&) = delete;

  void Feed(unsigned char* bytes, std::size_t count) {
    if (compressedDigest_ != nullptr) {
      compressedDigest_->Add(bytes, count);
    }
    stream_.next_in = bytes;
    stream_.avail_in = static_cast<uInt>(count);
    while (ready_ && stream_.avail_in > 0 && facts_.damage.empty()) {
      if (atEnd_) {
        TakeWhatIsBehind();
      } else {
        Inflate();
      }
    }
  }

  DeepFacts Finish(int error) {
    if (error != 0) {
      facts_.damage = "reading it fails: " + ErrorText(error);
    } else if (!ready_) {
      facts_.damage = "there is no memory to unpack it";
    } else if (!atEnd_ && facts_.damage.empty()) {
      facts_.damage = "it ends too early";
    }
    if (isArchive_ && facts_.damage.empty()) {
      facts_.tarProblem = walk_.Problem();
      facts_.contents = walk_.Contents();
    }
    if (digest_ != nullptr) {
      facts_.digest = digest_->Take();
      facts_.compressedDigest = compressedDigest_->Take();
    }
    return std::move(facts_);
  }

  bool IsDamaged() const { return !facts_.damage.empty(); }

 private:
  void Inflate() {
    stream_.next_out = output_.data();
    stream_.avail_out = static_cast<uInt>(output_.size());
    const int result = inflate(&stream_, Z_NO_FLUSH);
    const std::size_t made = output_.size() - stream_.avail_out;
    facts_.unpacked += made;
    if (isArchive_) {
      walk_.Add(output_.data(), made);
    }
    if (digest_ != nullptr) {
      digest_->Add(output_.data(), made);
    }
    if (result == Z_STREAM_END) {
      ++facts_.members;
      atEnd_ = true;
    } else if (result != Z_OK) {
      facts_.damage = std::string(stream_.msg == nullptr ? "not gzip" : stream_.msg) + " after " +
                      std::to_string(facts_.unpacked) + " unpacked bytes";
    }
  }

  /** Behind a member: another one, zeros that fill up a block, or something that is out of place.
   */
  void TakeWhatIsBehind() {
    if (*stream_.next_in == kMagic && !facts_.zerosBehind && !facts_.bytesBehind) {
      atEnd_ = inflateReset(&stream_) != Z_OK;
      return;
    }
    const unsigned char* end = stream_.next_in + stream_.avail_in;
    const bool zeros = std::all_of<const unsigned char*>(
        stream_.next_in, end, [](unsigned char byte) { return byte == 0; });
    (zeros ? facts_.zerosBehind : facts_.bytesBehind) = true;
    stream_.avail_in = 0;
  }

  z_stream stream_{};
  bool ready_ = false;
  bool atEnd_ = false;  // of a member
  bool isArchive_;
  TarWalk walk_;
  std::unique_ptr<Digest> digest_;
  std::unique_ptr<Digest> compressedDigest_;
  std::vector<unsigned char> output_;
  DeepFacts facts_;
};

}  // namespace

std::optional<DeepFacts> Unpack(const UnpackRequest& request,
                                const std::function<bool(std::uint64_t)>& goOn) {
  Unpacking unpacking(request);
  const int file = open(request.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  std::vector<unsigned char> piece(kPiece);
  std::uint64_t done = 0;
  int error = file == -1 ? errno : 0;
  bool wanted = goOn(done);
  while (error == 0 && wanted && !unpacking.IsDamaged()) {
    const ssize_t count = read(file, piece.data(), piece.size());
    if (count == 0) {
      break;
    }
    if (count > 0) {
      unpacking.Feed(piece.data(), static_cast<std::size_t>(count));
      done += static_cast<std::uint64_t>(count);
    } else if (errno != EINTR) {
      error = errno;
    }
    wanted = goOn(done);
  }
  if (file != -1) {
    close(file);
  }
  return wanted ? std::optional(unpacking.Finish(error)) : std::nullopt;
}

}  // namespace featurehost::lint

#pragma once

#include <string>

namespace support {

/** A folder of the test's own; it is removed with all it holds when the object ends. */
class TempDir {
 public:
  TempDir();
  ~TempDir();

  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  /** The path of a file or folder in it. */
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
/** Run a shell line that the test needs and that must succeed. */
void Shell(const std::string& command);
/** The same random bytes for the same seed. */
std::string RandomBytes(std::size_t count, unsigned seed = 1);
/** Write the content compressed with gzip. */
void WriteGzip(const std::string& path, const std::string& content);

}  // namespace support

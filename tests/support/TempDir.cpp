#include "tests/support/TempDir.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <stdlib.h>

namespace support {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "maincpuloader-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "cannot make a temporary folder " << pattern;
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
  EXPECT_FALSE(error) << "cannot remove " << path_ << ": " << error.message();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  EXPECT_TRUE(file.good()) << "cannot write " << path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << "cannot read " << path;
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

void Shell(const std::string& command) {
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(0, std::system(command.c_str())) << command;
}

std::string RandomBytes(std::size_t count, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (auto& byte : bytes) {
    byte = static_cast<char>(generator() & 0xffU);
  }
  return bytes;
}

void WriteGzip(const std::string& path, const std::string& content) {
  WriteFile(path + ".plain", content);
  Shell("gzip -c '" + path + ".plain' > '" + path + "' && rm '" + path + ".plain'");
}

}  // namespace support

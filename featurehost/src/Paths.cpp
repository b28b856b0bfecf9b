#include "featurehost/src/Paths.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace featurehost {

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool Exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

std::string Canonical(const std::string& path) {
  std::error_code error;
  const auto canonical = std::filesystem::weakly_canonical(path, error);
  const std::string text = error ? path : canonical.string();
  return text.size() > 1 && text.back() == '/' ? text.substr(0, text.size() - 1) : text;
}

}  // namespace featurehost

// Configurations of featurehost, and the properties that a module sees of them. The input is the
// file.

#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "featurehost/src/Configuration.h"
#include "featurehost/src/HostError.h"
#include "featurehost/src/Properties.h"
#include "fuzz/support/Require.h"

namespace {

using featurehost::Configuration;
using featurehost::HostError;

/** A file in memory that can be opened by name. */
class File {
 public:
  File(const std::uint8_t* data, std::size_t size) : descriptor_(memfd_create("config", 0)) {
    fuzz::Require(descriptor_ != -1 && write(descriptor_, data, size) == static_cast<ssize_t>(size),
                  "no file in memory");
  }
  ~File() { close(descriptor_); }

  File(const File&) = delete;
  File& operator=(const File&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

void CheckRefusal(const HostError& error, const std::string& path) {
  const std::string line = error.what();
  fuzz::Require(error.Code() == featurehost::ExitCode::kUsage, "exit code of: " + line);
  fuzz::Require(line.rfind(path + ":", 0) == 0, "no file in: " + line);
  fuzz::Require(line.find_first_of("\n\r\x1b") == std::string::npos, "more than a line: " + line);
}

void CheckProperties(const Configuration& configuration, const TFeatureId& id) {
  fuzz::Require(!id.empty() && id.size() < 64 && id.find('\0') == std::string::npos,
                "an id that the contract cannot carry");
  const auto& values = configuration.Of(id);
  const featurehost::Properties properties(id, values);
  for (const auto& [key, text] : values) {
    std::string value = "before";
    fuzz::Require(properties.GetProperty(id, key, value) == ETrue && value == text, "key " + key);
    fuzz::Require(value.find('\0') == std::string::npos, "a NUL in " + key);
    fuzz::Require(properties.GetProperty(id + "x", key, value) == EFalse, "of another feature");
  }
  std::string value = "before";
  if (values.count("no such key") == 0) {
    fuzz::Require(properties.GetProperty(id, "no such key", value) == EFalse && value == "before",
                  "a key that is not there");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const File file(data, size);
  try {
    const Configuration configuration = Configuration::Load(file.Path());
    CheckProperties(configuration, configuration.Choose(""));
    CheckProperties(configuration, configuration.Choose("feature"));
  } catch (const HostError& error) {
    CheckRefusal(error, file.Path());
  }
  return 0;
}

#include "featurehost/src/ToolOutput.h"

#include <array>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace featurehost {

namespace {

void CloseDescriptor(int& descriptor) {
  if (descriptor != -1) {
    close(descriptor);
    descriptor = -1;
  }
}

int Duplicate(int descriptor) {
  return fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace

ToolOutput::~ToolOutput() {
  Restore();
  CloseDescriptor(writer_);
  CloseDescriptor(reader_);
}

bool ToolOutput::Open() {
  writer_ = memfd_create("tool output", MFD_CLOEXEC);
  if (writer_ == -1) {
    return false;
  }
  // Several tools write at once, each at the end; reading has a position of its own.
  fcntl(writer_, F_SETFL, O_APPEND);
  reader_ = open(("/proc/self/fd/" + std::to_string(writer_)).c_str(), O_RDONLY | O_CLOEXEC);
  return reader_ != -1;
}

void ToolOutput::Divert() {
  standardOutput_ = Duplicate(STDOUT_FILENO);
  standardError_ = Duplicate(STDERR_FILENO);
  dup2(writer_, STDOUT_FILENO);
  dup2(writer_, STDERR_FILENO);
}

void ToolOutput::Restore() {
  if (standardError_ != -1) {
    dup2(standardOutput_, STDOUT_FILENO);
    dup2(standardError_, STDERR_FILENO);
  }
  CloseDescriptor(standardOutput_);
  CloseDescriptor(standardError_);
}

std::string ToolOutput::TakeLines() {
  std::string text = Take();
  const auto lineEnd = text.rfind('\n');
  const std::size_t complete = lineEnd == std::string::npos ? 0 : lineEnd + 1;
  lseek(reader_, -static_cast<off_t>(text.size() - complete), SEEK_CUR);
  text.resize(complete);
  return text;
}

std::string ToolOutput::TakeRest() {
  std::string text = Take();
  if (!text.empty() && text.back() != '\n') {
    text += '\n';
  }
  return text;
}

std::string ToolOutput::Take() const {
  std::string text;
  std::array<char, 4096> block{};
  for (ssize_t count = 0; (count = read(reader_, block.data(), block.size())) > 0;) {
    text.append(block.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace featurehost

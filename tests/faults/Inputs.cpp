#include "tests/faults/Inputs.h"

#include "tests/support/TempDir.h"

namespace faults {

namespace {

constexpr std::size_t kMib = 1048576;

Input Compress(const std::string& plain) {
  const support::TempDir folder;
  const std::string file = folder / "gz";
  support::WriteFile(file, plain);
  support::Shell("gzip -1 " + file);
  return {plain, support::ReadFile(file + ".gz")};
}

std::string Tar() {
  const support::TempDir folder;
  for (unsigned number = 1; number <= kArchivedFiles; ++number) {
    support::WriteFile(folder / ArchivedName(number), ArchivedContent(number));
  }
  support::Shell("cd " + folder.Path() + " && tar cf tar file*");
  return support::ReadFile(folder / "tar");
}

std::string SevenTimes(const std::string& text) {
  std::string whole;
  for (int times = 0; times < 7; ++times) {
    whole += text;
  }
  return whole;
}

}  // namespace

const Input& Archive() {
  static const Input archive = Compress(Tar());
  return archive;
}

std::string ArchivedName(unsigned number) {
  return "file" + std::to_string(number);
}

std::string ArchivedContent(unsigned number) {
  return support::RandomBytes(112000, number);
}

const Input& Image() {
  static const Input image = Compress(support::RandomBytes(kMib));
  return image;
}

const Input& LargeImage() {
  static const Input image = Compress(SevenTimes(Image().plain));
  return image;
}

void MakeInputOf(Kind kind) {
  if (kind == Kind::kArchive) {
    Archive();
  } else if (kind == Kind::kImage) {
    Image();
  } else if (kind == Kind::kCheck) {
    LargeImage();
  }
}

}  // namespace faults

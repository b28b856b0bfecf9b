#include "tests/faults/ArchiveCell.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/ioctl.h>
#include <unistd.h>

#include "tests/faults/Children.h"
#include "tests/faults/Inputs.h"
#include "tests/faults/Text.h"
#include "tests/faults/ToolText.h"
#include "tests/support/Eventually.h"
#include "tests/support/ProcessState.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

constexpr std::size_t kStep = 262144;
constexpr std::size_t kSteps = 4;

const std::string kDevice = kPlace + "/device";
const std::string kMountPoint = kPlace + "/mnt";
const std::string kRealTar = kPlace + "/real-tar";

}  // namespace

void ArchiveCell::LayOut() {
  support::Shell("mkdir -p " + kDevice + " " + kMountPoint);
  if (TheAct() == Act::kDiskFull) {
    support::Shell("mount -t tmpfs -o size=2m none " + kDevice);
  }
  support::WriteFile(source_, Archive().compressed);
  properties_.values = {{"updatelist", "userfs"},          {"updateprogresslist", "100"},
                        {"userfssource", source_},         {"userfstarget", "/dev/none"},
                        {"userfsmountpoint", kMountPoint}, {"userfsfilesystem", "ext3"}};
  mountPoints_ = {kMountPoint};
  tools_.Add("mount", "exec /bin/mount --bind " + kDevice + " " + kMountPoint);
  tools_.Add("sync", "exit 0");
  CoverTools();
  for (const auto& entry : support::OpenDescriptors()) {
    before_.insert(entry.first);
  }
}

void ArchiveCell::CoverTools() {
  if (!IsDoneByTools()) {
    return;
  }
  support::Shell("cp /bin/tar " + kRealTar);
  const bool decompresses = TheRole() == Role::kDecompressor;
  tool_ = std::make_unique<support::CoveredTool>(
      decompresses ? "/bin/zcat" : "/bin/tar",
      decompresses ? DecompressorText(TheAct(), BytesUntilTheFault()) : UnpackerText());
}

std::string ArchiveCell::UnpackerText() const {
  const std::string count = std::to_string(BytesUntilTheFault());
  const std::string real = kRealTar + " \"$@\"";
  switch (TheAct()) {
    case Act::kFlood:
      return "{ head -c " + count + "\n" + ActText(TheAct()) + "cat; } | " + real;
    case Act::kExitLate:
      return real + "\n" + ActText(TheAct());
    case Act::kTargetError:
      // As tar does: it says so, reads on to the end, and ends with 2.
      return "head -c " + count + " >/dev/null\n: >" + kActed +
             "\necho 'tar: Cannot write: Input/output error' >&2; cat >/dev/null; exit 2";
    default:
      return "head -c " + count + " >/dev/null\n" + ActText(TheAct());
  }
}

/** A decompressor that ends early does so a little before a full step, so that its end is seen. */
std::size_t ArchiveCell::BytesUntilTheFault() const {
  const std::size_t steps = static_cast<std::size_t>(TheMoment());
  if (TheRole() != Role::kDecompressor) {
    return steps * kStep;
  }
  if (TheAct() == Act::kExitLate) {
    return Archive().plain.length() - 1;
  }
  const bool ends = TheAct() == Act::kExitEarly || TheAct() == Act::kSourceError;
  return steps == 0 ? 0 : steps * kStep - (ends ? 1000 : 0);
}

bool ArchiveCell::IsDoneByTools() const {
  switch (TheAct()) {
    case Act::kHang:
    case Act::kExitEarly:
    case Act::kExitLate:
    case Act::kFlood:
    case Act::kSourceError:
    case Act::kTargetError:
      return true;
    default:
      return false;
  }
}

void ArchiveCell::Posted(const std::string& event) {
  if (!BeginsWith(event, "205")) {
    return;
  }
  ++progress_;
  if (progress_ < kSteps) {
    Settle();
    Reach(static_cast<Moment>(progress_));
  }
}

void ArchiveCell::Subscribed(TUint32 /*type*/) {
  if (Struck()) {
    return;  // what has failed may be the start of the children
  }
  const auto tools = ToolsOfThisProcess(IsDoneByTools() && TheRole() == Role::kDecompressor);
  ASSERT_EQ(2U, tools.size());
  decompressor_ = tools[0];
  writer_ = tools[1];
  FindPipe();
  Settle();
  Reach(Moment::kStart);
}

void ArchiveCell::FindPipe() {
  for (const auto& [descriptor, name] : support::OpenDescriptors()) {
    if (before_.count(descriptor) == 0 && BeginsWith(name, "pipe:") &&
        fcntl(descriptor, F_GETFL) == O_RDONLY) {
      pipe_ = descriptor;
    }
  }
  EXPECT_NE(-1, pipe_);
}

/** Needs no descriptor: there may be none. */
void ArchiveCell::Settle() const {
  // A decompressor that runs out of input goes on for a while; of others nothing is known any more.
  const bool goesOn = !Struck() || TheAct() == Act::kTruncate;
  if (!goesOn || pipe_ == -1) {
    return;
  }
  EXPECT_TRUE(support::Eventually([this] {
    int waiting = 0;
    const bool full =
        ioctl(pipe_, FIONREAD, &waiting) == 0 && waiting == fcntl(pipe_, F_GETPIPE_SZ);
    const bool hangs = IsDoneByTools() && access(kHung.c_str(), F_OK) == 0;
    // With the input gone it matters how far the decompressor has read: as far as it can.
    const bool waits = TheAct() != Act::kTruncate || Sleeps(decompressor_);
    return (full && waits) || hangs || HasEnded(decompressor_);
  }));
  // A fault of the unpacker comes when it has taken what it was to take.
  const bool unpackerEnds = TheRole() == Role::kWriter && TheAct() == Act::kExitEarly;
  if (unpackerEnds && progress_ == static_cast<std::size_t>(TheMoment())) {
    EXPECT_TRUE(support::Eventually([this] { return HasEnded(writer_); }));
  }
}

bool ArchiveCell::TargetIsRight() const {
  for (unsigned number = 1; number <= kArchivedFiles; ++number) {
    std::ifstream file(kDevice + "/" + ArchivedName(number), std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (content != ArchivedContent(number)) {
      return false;
    }
  }
  return true;
}

std::optional<std::size_t> ArchiveCell::ProgressEvents() const {
  const auto steps = static_cast<std::size_t>(TheMoment());
  if (Expected().results != std::vector<std::string>{"204 0"} || TheAct() == Act::kExitLate ||
      TheAct() == Act::kTruncate) {
    return std::nullopt;
  }
  // The end with an error is seen before the last bytes are taken.
  return TheAct() == Act::kSourceError && steps > 0 ? steps - 1 : steps;
}

void ArchiveCell::FillTarget() {
  std::ofstream filler(kDevice + "/filler");
  const std::string block(4096, 'x');
  while (filler << block << std::flush) {
  }
}

}  // namespace faults

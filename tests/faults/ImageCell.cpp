#include "tests/faults/ImageCell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "tests/faults/Children.h"
#include "tests/faults/Inputs.h"
#include "tests/faults/Text.h"
#include "tests/faults/ToolText.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

constexpr std::size_t kBlock = 4096;
/** So much is left in the last step that zcat has not come to its end either. */
constexpr std::size_t kLastStep = 262144;

const std::string kTarget = kPlace + "/target";
const std::string kDisk = kPlace + "/disk";

}  // namespace

void ImageCell::LayOut() {
  support::WriteFile(source_, Image().compressed);
  properties_.values = {{"updatelist", "rootfs"},
                        {"updateprogresslist", "100"},
                        {"rootfssource", source_},
                        {"rootfstarget", kTarget},
                        {"rootfstargetsize", std::to_string(Image().plain.length())},
                        {"rootfsblocksize", "4k"},
                        {"rootfschecksum", "none"}};
  tools_.Add("fdisk", "exit 0");
  tools_.Add("sleep", "exit 0");
  if (TheAct() == Act::kTargetError) {
    MakeTerminal();
  } else if (TheAct() == Act::kDiskFull) {
    MakeFullDisk();
  } else if (IsDoneByTools()) {
    MakeTool();
  } else {
    MakeFifo();
  }
}

ImageCell::~ImageCell() {
  close(terminal_);
}

std::size_t ImageCell::Allowed() const {
  return TheMoment() == Moment::kAfterEnd ? Gate::kEverything : BytesUntilTheMoment();
}

void ImageCell::MakeFifo() {
  EXPECT_EQ(0, mkfifo(kTarget.c_str(), 0600));
  const int end = open(kTarget.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(static_cast<int>(kBlock), fcntl(end, F_SETPIPE_SZ, kBlock));
  gate_ = std::make_unique<Gate>(end, Allowed());
}

/** A terminal whose other side is gone answers every write with an input/output error. */
void ImageCell::MakeTerminal() {
  isTerminal_ = true;
  const int end = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  ASSERT_NE(-1, end);
  EXPECT_EQ(0, grantpt(end));
  EXPECT_EQ(0, unlockpt(end));
  const std::string name = ptsname(end);  // NOLINT(concurrency-mt-unsafe)
  terminal_ = open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios raw{};
  EXPECT_EQ(0, tcgetattr(terminal_, &raw));
  cfmakeraw(&raw);
  EXPECT_EQ(0, tcsetattr(terminal_, TCSANOW, &raw));
  properties_.values["rootfstarget"] = name;
  gate_ = std::make_unique<Gate>(end, Allowed());
}

/** There is room for what comes before the moment. */
void ImageCell::MakeFullDisk() {
  const std::size_t room = TheMoment() == Moment::kStart ? 0 : BytesUntilTheMoment() + kBlock;
  support::Shell("mkdir " + kDisk + " && mount -t tmpfs -o size=2m none " + kDisk +
                 " && head -c $((2097152 - " + std::to_string(room) + ")) /dev/zero >" + kDisk +
                 "/filler && : >" + kActed);
  properties_.values["rootfstarget"] = kDisk + "/target";
}

void ImageCell::MakeTool() {
  const std::string count = std::to_string(TheAct() == Act::kExitLate ? Image().plain.length() - 1
                                                                      : BytesUntilTheMoment());
  if (TheRole() == Role::kDecompressor) {
    tools_.Add("zcat", DecompressorText(TheAct(), std::stoul(count)));
    return;
  }
  if (TheAct() == Act::kFlood) {
    tools_.Add("dd", "{ head -c " + count + "\n" + ActText(TheAct()) + "cat; } >\"${1#of=}\"");
  } else {
    const std::string copy = TheAct() == Act::kExitLate ? "cat" : "head -c " + count;
    tools_.Add("dd", copy + " >\"${1#of=}\"\n" + ActText(TheAct()));
  }
}

std::size_t ImageCell::BytesUntilTheMoment() const {
  switch (TheMoment()) {
    case Moment::kMiddle:
      return Image().plain.length() / 2;
    case Moment::kLastStep:
      return Image().plain.length() - kLastStep;
    default:
      return 0;
  }
}

bool ImageCell::IsDoneByTools() const {
  switch (TheAct()) {
    case Act::kHang:
    case Act::kExitEarly:
    case Act::kExitLate:
    case Act::kFlood:
    case Act::kSourceError:
    case Act::kDiskFull:
      return true;
    default:
      return false;
  }
}

void ImageCell::Posted(const std::string& event) {
  if (BeginsWith(event, "205") && asked_) {
    Reach(TheMoment());
    GoOn();
  }
}

void ImageCell::Subscribed(TUint32 type) {
  if (type != EEventTimer || IsDoneByTools()) {
    return;
  }
  if (!Struck()) {
    const auto tools = ToolsOfThisProcess(false);
    ASSERT_EQ(2U, tools.size());
    writer_ = tools[0];
    decompressor_ = tools[1];
    Reach(Moment::kStart);
  }
  if (TheMoment() == Moment::kStart) {
    GoOn();
  }
}

/** Not after an abort: it is for a copy that goes on for as long as the host takes to deliver it.
 */
void ImageCell::GoOn() {
  if (TheAct() != Act::kAbort) {
    gate_->Allow(Gate::kEverything);
  }
}

void ImageCell::Turn() {
  if (gate_ == nullptr || asked_ || !gate_->HasTakenWhatIsAllowed() || !DDStandsStill()) {
    return;
  }
  asked_ = true;
  if (isTerminal_) {
    Reach(TheMoment());
    return;
  }
  // The first tick only allows dd to be asked.
  Host().Tick();
  Host().Tick();
}

/** In the kernel, that is: a request that comes right before its write would wait with it. */
bool ImageCell::DDStandsStill() const {
  int waiting = 0;
  return isTerminal_ || (ioctl(gate_->Descriptor(), FIONREAD, &waiting) == 0 &&
                         waiting == static_cast<int>(kBlock) && Sleeps(writer_));
}

bool ImageCell::TargetIsRight() const {
  if (gate_ == nullptr) {
    return support::ReadFile(kTarget) == Image().plain;
  }
  gate_->Close();
  return gate_->Taken() == Image().plain;
}

void ImageCell::BreakTarget() {
  gate_->Close();
}

}  // namespace faults

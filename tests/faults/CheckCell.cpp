#include "tests/faults/CheckCell.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "tests/faults/Children.h"
#include "tests/faults/Inputs.h"
#include "tests/faults/Text.h"
#include "tests/faults/ToolText.h"
#include "tests/support/SystemCalls.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

constexpr std::size_t kStep = 2097152;

const std::string kTarget = kPlace + "/target";

}  // namespace

void CheckCell::LayOut() {
  support::WriteFile(source_, LargeImage().compressed);
  support::WriteFile(kTarget, LargeImage().plain);
  properties_.values = {{"updatelist", "checkimage"},
                        {"updateprogresslist", "100"},
                        {"imagesource", source_},
                        {"imagetarget", kTarget},
                        {"imagetargetsize", std::to_string(LargeImage().plain.length())}};
  if (IsDoneByTools()) {
    tool_ = std::make_unique<support::CoveredTool>(
        "/bin/zcat", DecompressorText(TheAct(), BytesUntilTheFault()));
  }
}

std::size_t CheckCell::BytesUntilTheFault() const {
  return TheAct() == Act::kExitLate ? LargeImage().plain.length() - 1
                                    : static_cast<std::size_t>(TheMoment()) * kStep;
}

bool CheckCell::IsDoneByTools() const {
  switch (TheAct()) {
    case Act::kHang:
    case Act::kExitEarly:
    case Act::kExitLate:
    case Act::kFlood:
    case Act::kSourceError:
      return true;
    default:
      return false;
  }
}

void CheckCell::Posted(const std::string& event) {
  if (BeginsWith(event, "205")) {
    Reach(static_cast<Moment>(++progress_));
  }
}

void CheckCell::Subscribed(TUint32 /*type*/) {
  if (Struck()) {
    return;
  }
  const auto tools = ToolsOfThisProcess(IsDoneByTools());
  ASSERT_EQ(1U, tools.size());
  decompressor_ = tools[0];
  Reach(Moment::kStart);
}

bool CheckCell::TargetIsRight() const {
  return support::ReadFile(kTarget) == LargeImage().plain;
}

std::optional<std::size_t> CheckCell::ProgressEvents() const {
  // Of a decompressor that ends, what it has written last may be lost: it counts for nothing then.
  if (Expected().results == std::vector<std::string>{"204 0"} && !IsDoneByTools()) {
    return static_cast<std::size_t>(TheMoment());
  }
  return std::nullopt;
}

/** The module's next read from the target gives what a broken device gives. */
void CheckCell::BreakTarget() {
  support::SystemCalls::Instance().Fail("read file", EIO);
}

}  // namespace faults

// Prepare of every loader with arbitrary text in its numeric properties, and what becomes of the
// numbers.

#include <fuzzer/FuzzedDataProvider.h>

#include "MainCPULoader/src/ArchiveLoader.h"
#include "MainCPULoader/src/EOLSettingsLoader.h"
#include "MainCPULoader/src/FactoryDataLoader.h"
#include "MainCPULoader/src/ImageChecker.h"
#include "MainCPULoader/src/ImageLoader.h"
#include "fuzz/support/Expected.h"
#include "fuzz/support/FakeSystem.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"

namespace {

/** Whether a size that may have nothing behind it is taken; no text at all is. */
bool IsWhole(const std::string& text) {
  const std::string visible = fuzz::UpToNul(text);
  return fuzz::NumberLength(visible) == visible.size();
}

class Loaders {
 public:
  Loaders(fuzz::FakeSystem& system, std::string first, std::string second)
      : first_(std::move(first)), second_(std::move(second)) {
    properties_.values = {{"xsource", "/s"},        {"xtarget", "/t"},
                          {"xtargetsize", first_},  {"xoffset", first_},
                          {"xsize", second_},       {"xchecksum", second_},
                          {"xblocksize", second_},  {"xmountpoint", first_},
                          {"xfilesystem", second_}, {"xtargetfilename", "f"}};
    system.onCommand = [this](const std::string& command) { commands_.push_back(command); };
  }

  void PrepareImage() {
    CImageLoader loader("x", id_, broker_, properties_, callback_);
    CheckSize(loader);
    loader.Install();
  }

  void PrepareChecker() {
    auto* decompressor = new CInputProcess;
    CImageChecker loader("x", id_, broker_, properties_, callback_, decompressor);
    CheckSize(loader);
  }

  void PrepareArchive() {
    CArchiveLoader loader("x", id_, broker_, properties_, callback_, new CInputProcess,
                          new CArchiveLoaderOutputProcess);
    fuzz::Require(loader.Prepare() == ETrue, "prepare of an archive");
    loader.FinalizeLoading(EFalse);
  }

  void InstallFactoryData() {
    CFactoryDataLoader loader("x", id_, broker_, properties_, callback_);
    fuzz::Require(loader.Prepare() == ETrue, "prepare of factory data");
    loader.Install();
    const std::int32_t size = fuzz::ExpectedInt32(second_);
    CheckCopy("dd if=/s of=/t bs=1 skip=" + std::to_string(fuzz::ExpectedInt32(first_)) +
                  " count=" + std::to_string(size),
              0, size);
  }

  void InstallEndOfLine() {
    CEOLSettingsLoader loader("x", id_, properties_, callback_);
    fuzz::Require(loader.Prepare() == ETrue, "prepare of end-of-line settings");
    loader.Install();
    const std::int32_t size = fuzz::ExpectedInt32(second_);
    const auto offset = static_cast<std::uint32_t>(fuzz::ExpectedInt32(first_));
    CheckCopy("dd if=/s of=/tmp/eolmountpoint/f bs=1 skip=" + std::to_string(offset) +
                  " count=" + std::to_string(static_cast<std::uint32_t>(size)),
              1, size);
  }

 private:
  void CheckSize(ILoader& loader) {
    fuzz::Require((loader.Prepare() != EFalse) == IsWhole(first_), "which sizes are taken");
  }

  void CheckCopy(const std::string& command, std::size_t position, std::int32_t size) {
    fuzz::Require(commands_.size() > position && commands_[position] == command,
                  "not run: " + command);
    const std::vector<std::string> reports{
        "Progress 0/" + std::to_string(static_cast<std::uint32_t>(size)), "Completed 1"};
    fuzz::Require(callback_.Reports() == reports, "reports of " + command);
  }

  std::string first_;
  std::string second_;
  std::string id_ = "feature";
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  std::vector<std::string> commands_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  FuzzedDataProvider nothing(nullptr, 0);
  fuzz::FakeSystem system(nothing);
  using TCase = void (Loaders::*)();
  const TCase cases[] = {&Loaders::PrepareImage, &Loaders::PrepareChecker, &Loaders::PrepareArchive,
                         &Loaders::InstallFactoryData, &Loaders::InstallEndOfLine};
  const TCase chosen = input.PickValueInArray(cases);
  std::string first = input.ConsumeRandomLengthString();
  Loaders loaders(system, std::move(first), input.ConsumeRemainingBytesAsString());
  (loaders.*chosen)();
  return 0;
}

#include "MainCPULoader/src/EOLSettingsLoader.h"

#include <string>
#include <utility>

#include "SWLInfra/src/CmdHandler.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/EOLSettingsLoader");

const std::string KMountPoint = "/tmp/eolmountpoint";

/** What stands before the last "/"; empty when there is none. */
std::string FolderPart(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

int Run(const std::string& command) {
  return ICmdHandler::SystemCmd(Bytes(command));
}

}  // namespace

CEOLSettingsLoader::CEOLSettingsLoader(std::string loaderId, std::string& featureId,
                                       const IFeatureProperties& properties,
                                       ILoaderCallback& callback)
    : iLoaderId(std::move(loaderId)),
      iFeatureId(featureId),
      iProperties(properties),
      iCallback(callback) {}

TBool CEOLSettingsLoader::Prepare() {
  KLog.Info("Prepare", "EOLSettingsLoader");

  return EOLSettingsProperties();
}

void CEOLSettingsLoader::Install() {
  KLog.Info("Install", "EOLSettingsLoader");

  const TOutcome outcome = Restore();
  if (outcome.iStage == ENone) {
    // Category Error, so that the success shows in logs that keep errors only.
    KLog.Error("Install", "EOLSettingsLoader: eol settings restored");
    iCallback.Progress(0, iSize);
    iCallback.Completed(ETrue);
  } else {
    LogFailure(outcome);
    iCallback.Completed(EFalse);
  }
}

void CEOLSettingsLoader::Abort() {
  KLog.Info("Abort", "EOLSettingsLoader");

  iCallback.Aborted();
}

TBool CEOLSettingsLoader::EOLSettingsProperties() {
  std::string offset;
  if (!ReadProperty("source", " source: ", iSource) ||
      !ReadProperty("target", " target device: ", iTarget) ||
      !ReadProperty("targetfilename", " target filename: ", iTargetFileName) ||
      !ReadProperty("offset", " offset: ", offset)) {
    return EFalse;
  }
  iOffset = static_cast<TUint32>(DecimalInt32(offset));

  std::string size;
  if (!ReadProperty("size", " size: ", size)) {
    return EFalse;
  }
  iSize = static_cast<TUint32>(DecimalInt32(size));
  return ETrue;
}

bool CEOLSettingsLoader::ReadProperty(const char* suffix, const char* label, std::string& value) {
  if (iProperties.GetProperty(iFeatureId, iLoaderId + suffix, value) == EFalse) {
    return false;
  }
  KLog.Info("EOLSettingsProperties", "EOLSettingsLoader: ", iLoaderId, label, value);
  return true;
}

CEOLSettingsLoader::TOutcome CEOLSettingsLoader::Restore() const {
  const std::string folder = FolderPart(iTargetFileName);
  const std::string mountCommand = "mkdir " + KMountPoint +
                                   " && mount -o rw,noexec,noatime,nodiratime,nodev,nosuid " +
                                   iTarget + " " + KMountPoint;
  const std::string folderCommand = "mkdir -p " + KMountPoint + "/" + folder;
  // Not through a stream: it would group the digits as the host's locale says.
  const std::string copyCommand = "dd if=" + iSource + " of=" + KMountPoint + "/" +
                                  iTargetFileName + " bs=1 skip=" + std::to_string(iOffset) +
                                  " count=" + std::to_string(iSize);
  const std::string unmountCommand = "umount " + KMountPoint + " && rmdir " + KMountPoint;

  int result = Run(mountCommand);
  if (result != 0) {
    KLog.Info("Install", "EOLSettingsLoader: failed to mount filesystem.");
  }
  if (!folder.empty()) {
    if (result != 0) {
      return {EMakeDirectory, result};
    }
    result = Run(folderCommand);
  }
  if (result != 0) {
    return {ECopy, result};
  }
  result = Run(copyCommand);
  if (result != 0) {
    // The file system stays mounted. Whoever mends the cause unmounts it and removes the folder.
    return {EUnmount, result};
  }
  result = Run(unmountCommand);
  return {result != 0 ? ERestore : ENone, result};
}

void CEOLSettingsLoader::LogFailure(const TOutcome& outcome) {
  // Each stage goes on into the later ones, so one failure writes several lines, and all but the
  // last are one step behind what failed. Readers of the log know them so.
  constexpr const char* KStageTexts[] = {"EOLSettingsLoader: failed to make directory",
                                         "EOLSettingsLoader: failed to copy eol settings.",
                                         "EOLSettingsLoader: failed to umount."};
  for (int stage = outcome.iStage; stage < ERestore; ++stage) {
    KLog.Error("Install", KStageTexts[stage]);
  }
  KLog.Error("Install", "EOLSettingsLoader: failed to restore eol settings: ", outcome.iResult);
}

#include "MainCPULoader/src/ImageLoader.h"

#include <cstdlib>
#include <utility>

#include "MainCPULoader/src/EventFilter.h"
#include "SWLInfra/src/CmdHandler.h"
#include "SWLInfra/src/FileHandler.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/ImageLoader");

// The device is fixed: whatever the target is, it is this card's table that is written again.
const std::string KWritePartitionTable = "echo w | fdisk /dev/mmcblk1 2>&1 >/dev/null && sleep 1";

constexpr TUint32 KNoDescriptor = static_cast<TUint32>(-1);

bool WrapperEventFor(const TEvent& event, TDDWrapperEvent& wrapperEvent) {
  switch (event.iType) {
    case EEventTimer:
      wrapperEvent = EDDTimerTick;
      return true;
    case EEventDescriptor:
      wrapperEvent = EDDOutputReady;
      return true;
    default:
      return false;
  }
}

}  // namespace

CImageLoader::CImageLoader(std::string loaderId, std::string& featureId, IEventBroker& eventBroker,
                           const IFeatureProperties& properties, ILoaderCallback& callback)
    : iLoaderId(std::move(loaderId)),
      iFeatureId(featureId),
      iEventBroker(eventBroker),
      iProperties(properties),
      iCallback(callback) {
  iDescriptorSubscription.iCode = KNoDescriptor;
}

CImageLoader::~CImageLoader() {
  DiscardWrapper();
  Cleanup();
}

TBool CImageLoader::Prepare() {
  KLog.Info("Prepare", "ImageLoader");

  if (FillImageProperties() == EFalse) {
    KLog.Error("Prepare", "ImageLoader: Failed to retrieve properties");
    return EFalse;
  }

  if (iDDWrapper != nullptr) {
    // A copy that still runs ends here, and its descriptor with it. The timer stays: its next tick
    // finds no copy and reports the install as failed.
    UnsubscribeDescriptor();
    DiscardWrapper();
  }
  iDDWrapper = IDDWrapper::Create();
  if (iDDWrapper == nullptr) {
    KLog.Error("Prepare", "ImageLoader: Failed to create dd wrapper");
    return EFalse;
  }
  return ETrue;
}

void CImageLoader::Install() {
  KLog.Interface("virtual void CImageLoader::Install()", "ImageLoader");

  int descriptor = -1;
  unsigned period = 0;
  if (StartCopy(descriptor, period) != EDDCompleted) {
    KLog.Error("Install", "ImageLoader: Could not start install of image: ");
    iCallback.Completed(EFalse);
    return;
  }

  // The timer of an install that a prepare cut off: subscribed twice, it would outlive this object.
  Cleanup();
  if (descriptor != -1) {
    iDescriptorSubscription = Readable(descriptor);
    iEventBroker.Subscribe(iDescriptorSubscription, this);
  }
  if (period != 0) {
    iTimerSubscription = RepeatingTimer(period);
    iEventBroker.Subscribe(iTimerSubscription, this);
  }
}

void CImageLoader::Abort() {
  // The tag of this one is spelt like that; readers of the log know it.
  KLog.Interface("virtual void CImageLoader::Abort()", "ImagerLoader");

  if (iDDWrapper != nullptr) {
    iDDWrapper->Abort();
  }
  Cleanup();
  iCallback.Aborted();
}

void CImageLoader::OnEvent(const TEvent& event) {
  KLog.Interface("virtual void CImageLoader::OnEvent(const TEvent&)", "ImageLoader");

  TDDWrapperEvent wrapperEvent{};
  if (iDDWrapper == nullptr || !WrapperEventFor(event, wrapperEvent)) {
    return;
  }

  unsigned bytes = 0;
  const TDDWrapperResult result = iDDWrapper->WaitForCompletion(wrapperEvent, bytes);
  if (result == EDDRunning) {
    ReportProgress(bytes);
  } else if (result == EDDCompleted && RewritePartitionTable()) {
    Cleanup();
    KLog.Info("OnEvent", "ImageLoader: Succesfull install of image: ", iSource);
    iCallback.Completed(ETrue);
  } else {
    Cleanup();
    KLog.Error("OnEvent", "ImageLoader: Failed to install image: ", iSource);
    iCallback.Completed(EFalse);
  }
}

TBool CImageLoader::FillImageProperties() {
  if (iLoaderId.empty()) {
    return EFalse;
  }

  ReadProperty("version", " version: ", iVersion);
  if (!ReadDevelopmentOverride() && !ReadRequiredProperty("source", " source: ", iSource)) {
    return EFalse;
  }
  if (!ReadRequiredProperty("target", " target: ", iTarget) || !ReadTargetSize()) {
    return EFalse;
  }
  ReadProperty("blocksize", " block size: ", iBlockSize);
  // Required, although nothing here compares it: a check item looks at what was written.
  return ReadRequiredProperty("checksum", " checksum: ", iChecksum) ? ETrue : EFalse;
}

void CImageLoader::Cleanup() {
  UnsubscribeTimer();
  UnsubscribeDescriptor();
}

bool CImageLoader::ReadProperty(const char* suffix, const char* label, std::string& value) {
  if (iProperties.GetProperty(iFeatureId, iLoaderId + suffix, value) == EFalse) {
    return false;
  }
  KLog.Info("FillImageProperties", "ImageLoader: ", iLoaderId, label, value);
  return true;
}

bool CImageLoader::ReadRequiredProperty(const char* suffix, const char* label, std::string& value) {
  const bool found = ReadProperty(suffix, label, value);
  if (!found) {
    KLog.Error("FillImageProperties", "ImageLoader: Failed to retrieve '", suffix, "' property");
  }
  return found;
}

bool CImageLoader::ReadDevelopmentOverride() {
  if (iProperties.GetProperty(iFeatureId, iLoaderId + "altsource", iSource) == EFalse ||
      IFileHandler::FileExists(Bytes(iSource)) == IFileHandler::EFileHndlNotFound) {
    return false;
  }
  KLog.Info("FillImageProperties", "ImageLoader: ", iLoaderId, " unchecked source: ", iSource);
  KLog.Always("FillImageProperties", "ImageLoader: Using development override!");
  return true;
}

bool CImageLoader::ReadTargetSize() {
  if (iProperties.GetProperty(iFeatureId, iLoaderId + "targetsize", iTargetSize) == EFalse) {
    KLog.Error("FillImageProperties", "ImageLoader: Failed to retrieve 'targetsize' property");
    return false;
  }
  char* end = nullptr;
  iLoadSize = static_cast<TUint32>(std::strtoll(iTargetSize.c_str(), &end, 10));
  iRemainingSize = iLoadSize;
  if (*end != '\0') {
    KLog.Error("FillImageProperties", "ImageLoader: Failed to parse 'targetsize' property");
    return false;
  }
  KLog.Info("FillImageProperties", "ImageLoader: ", iLoaderId, " target size: ", iLoadSize);
  return true;
}

TDDWrapperResult CImageLoader::StartCopy(int& descriptor, unsigned& period) {
  if (iDDWrapper == nullptr) {
    return EDDFailed;
  }
  return iDDWrapper->Start(Bytes(iSource), Bytes(iTarget), Bytes(iBlockSize), descriptor, period);
}

void CImageLoader::DiscardWrapper() {
  if (iDDWrapper != nullptr) {
    iDDWrapper->Abort();
    iDDWrapper->Destroy();
    iDDWrapper = nullptr;
  }
}

void CImageLoader::UnsubscribeTimer() {
  if (iTimerSubscription.iSize != 0) {
    iEventBroker.Unsubscribe(iTimerSubscription, this);
    iTimerSubscription.iSize = 0;
  }
}

void CImageLoader::UnsubscribeDescriptor() {
  if (iDescriptorSubscription.iCode != KNoDescriptor) {
    iEventBroker.Unsubscribe(iDescriptorSubscription, this);
    iDescriptorSubscription.iCode = KNoDescriptor;
  }
}

bool CImageLoader::RewritePartitionTable() {
  const int result = ICmdHandler::SystemCmd(Bytes(KWritePartitionTable));
  if (result != 0) {
    KLog.Error("OnEvent", "fdisk: failed to write partition table: ", result);
  }
  return result == 0;
}

// Only ever forward. More bytes than expected wrap to a huge remainder, which is not reported.
void CImageLoader::ReportProgress(TUint32 bytes) {
  KLog.Info("OnEvent", "ImageLoader: Progress. LoadSize: ", iLoadSize, ", BytesProcessed: ", bytes);

  const TUint32 remaining = iLoadSize - bytes;
  if (bytes != 0 && remaining < iRemainingSize) {
    iRemainingSize = remaining;
    iCallback.Progress(iRemainingSize, iLoadSize);
  }
}

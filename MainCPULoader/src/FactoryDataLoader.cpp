#include "MainCPULoader/src/FactoryDataLoader.h"

#include <string>
#include <utility>

#include "SWLInfra/src/CmdHandler.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/FactoryDataLoader");

}  // namespace

CFactoryDataLoader::CFactoryDataLoader(std::string loaderId, std::string& featureId,
                                       IEventBroker& eventBroker,
                                       const IFeatureProperties& properties,
                                       ILoaderCallback& callback)
    : iLoaderId(std::move(loaderId)),
      iFeatureId(featureId),
      iEventBroker(eventBroker),
      iProperties(properties),
      iCallback(callback) {}

TBool CFactoryDataLoader::Prepare() {
  KLog.Info("Prepare", "FactoryDataLoader");

  return FillFactoryDataProperties();
}

void CFactoryDataLoader::Install() {
  KLog.Info("Install", "FactoryDataLoader");

  // Not through a stream: it would group the digits as the host's locale says.
  const std::string command = "dd if=" + iSource + " of=" + iTarget + " bs=1" +
                              " skip=" + std::to_string(iOffset) +
                              " count=" + std::to_string(iSize);
  const int result = ICmdHandler::SystemCmd(Bytes(command));

  if (result == 0) {
    KLog.Info("Install", "FactoryDataLoader: factory data restored");
    iCallback.Progress(0, static_cast<TUint32>(iSize));
    iCallback.Completed(ETrue);
  } else {
    KLog.Error("Install", "FactoryDataLoader: failed to restore factory data: ", result);
    iCallback.Completed(EFalse);
  }
}

void CFactoryDataLoader::Abort() {
  KLog.Info("Abort", "FactoryDataLoader");

  iCallback.Aborted();
}

void CFactoryDataLoader::OnEvent(const TEvent& /*event*/) {
  KLog.Info("OnEvent", "FactoryDataLoader: Timer Event");
}

TBool CFactoryDataLoader::FillFactoryDataProperties() {
  std::string offset;
  if (!ReadProperty("source", " source: ", iSource) ||
      !ReadProperty("target", " target device: ", iTarget) ||
      !ReadProperty("offset", " offset: ", offset)) {
    return EFalse;
  }
  iOffset = DecimalInt32(offset);

  std::string size;
  if (!ReadProperty("size", " size: ", size)) {
    return EFalse;
  }
  iSize = DecimalInt32(size);
  return ETrue;
}

bool CFactoryDataLoader::ReadProperty(const char* suffix, const char* label, std::string& value) {
  if (iProperties.GetProperty(iFeatureId, iLoaderId + suffix, value) == EFalse) {
    return false;
  }
  KLog.Info("FillFactoryDataProperties", "FactoryDataLoader: ", iLoaderId, label, value);
  return true;
}

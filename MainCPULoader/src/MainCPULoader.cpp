#include "MainCPULoader/src/MainCPULoader.h"

#include <algorithm>
#include <limits>

#include "MainCPULoader/src/LoaderFactory.h"
#include "SWLInfra/src/Log.h"
#include "host/Platform.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/MainCPULoader");

// Entries of the loader list are counted in a 16-bit word.
constexpr std::size_t KCountModulus = 65536;

TEvent UserEventFilter(TUint32 code) {
  return TEvent{EEventUser, code, 0, nullptr};
}

void CopyFeatureId(char (&field)[KFeatureIdFieldSize], const TFeatureId& featureId) {
  const std::size_t wanted = featureId.length() + 1;
  platSafecopy(field, featureId.c_str(),
               static_cast<TUint32>(std::min(wanted, KFeatureIdFieldSize)));
}

// Not guarded against remaining > total: the difference wraps, as it always did, and the number
// that comes out is saturated before it is cut to 8 bits.
TUint8 Percentage(TUint32 remainingSize, TUint32 totalSize) {
  if (totalSize == 0) {
    return 100;
  }
  const double done = totalSize - remainingSize;
  const double rounded = done / totalSize * 100 + 0.5;
  const double limit = std::numeric_limits<TUint32>::max();
  return static_cast<TUint8>(static_cast<TUint32>(std::min(rounded, limit)));
}

}  // namespace

const char* FeatureType() {
  return "maincpuloader";
}

IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker,
                                IEventBroker& eventBroker, const IFeatureProperties& properties) {
  auto* factory = new CLoaderFactory;
  return new CMainCPULoader(featureId, interfaceBroker, eventBroker, properties, factory);
}

CMainCPULoader::CMainCPULoader(const TFeatureId& featureId, IInterfaceBroker& /*interfaceBroker*/,
                               IEventBroker& eventBroker, const IFeatureProperties& properties,
                               CLoaderFactory* factory)
    : iFeatureId(featureId), iProperties(properties), iEventBroker(eventBroker), iFactory(factory) {
  KLog.Interface(
      "CMainCPULoader::CMainCPULoader(const TFeatureId&, IInterfaceBroker&, IEventBroker&, "
      "const IFeatureProperties&, CLoaderFactory*)");

  SubscribeEvents();
  PostUserEvent(EUserEventFeatureCreated, iFeatureId.data(),
                static_cast<TUint32>(iFeatureId.length()));
}

CMainCPULoader::~CMainCPULoader() {
  KLog.Interface("virtual CMainCPULoader::~CMainCPULoader()");

  UnsubscribeEvents();
  for (auto& entry : iLoaders) {
    delete entry.first;
    entry.first = nullptr;
  }
  iLoaders.clear();
  delete iFactory;
  iFactory = nullptr;
}

void CMainCPULoader::OnEvent(const TEvent& event) {
  constexpr const char* KSignature = "virtual void CMainCPULoader::OnEvent(const TEvent&)";
  KLog.Interface(KSignature, "Event: ", event.iType);

  if (event.iType != EEventUser) {
    KLog.Error("OnEvent", "Unexpected event: ", event.iType);
    return;
  }

  KLog.Interface(KSignature, "UserEvent: ", event.iCode);
  switch (event.iCode) {
    case EUserEventControllerInstall:
      if (AddressesUs(event)) {
        HandleControllerInstall();
      }
      break;
    case EUserEventControllerAbort:
      // Deliberately for every feature: whose id the payload holds does not matter.
      HandleControllerAbort();
      break;
    case EUserEventControllerPrepare:
      if (AddressesUs(event)) {
        HandleControllerPrepare();
      }
      break;
    default:
      KLog.Error("OnEvent", "Unexpected user event received: ", event.iCode);
      break;
  }
}

void CMainCPULoader::Progress(TUint32 remainingSize, TUint32 totalSize) {
  KLog.Interface("virtual void CMainCPULoader::Progress(TUint32, TUint32)",
                 "RemainingSize: ", remainingSize, ", TotalSize: ", totalSize);

  HandleLoaderProgress(Percentage(remainingSize, totalSize));
}

void CMainCPULoader::Completed(TBool successful) {
  KLog.Interface("virtual void CMainCPULoader::Completed(TBool)",
                 "Successful: ", successful != EFalse ? "ETrue" : "EFalse");

  if (successful != EFalse) {
    HandleLoaderCompleted();
  } else {
    HandleLoaderFailed();
  }
}

void CMainCPULoader::Aborted() {
  KLog.Interface("virtual void CMainCPULoader::Aborted()");

  HandleLoaderAborted();
}

void CMainCPULoader::SubscribeEvents() {
  KLog.Info("SubscribeEvents");

  iPrepareEvent = UserEventFilter(EUserEventControllerPrepare);
  iInstallEvent = UserEventFilter(EUserEventControllerInstall);
  iAbortEvent = UserEventFilter(EUserEventControllerAbort);
  iEventBroker.Subscribe(iPrepareEvent, this);
  iEventBroker.Subscribe(iInstallEvent, this);
  iEventBroker.Subscribe(iAbortEvent, this);
}

void CMainCPULoader::UnsubscribeEvents() {
  KLog.Info("UnsubscribeEvents");

  iEventBroker.Unsubscribe(iPrepareEvent, this);
  iEventBroker.Unsubscribe(iInstallEvent, this);
  iEventBroker.Unsubscribe(iAbortEvent, this);
}

TBool CMainCPULoader::ParseProperties() {
  KLog.Info("ParseProperties");

  if (!iLoaders.empty()) {
    return ETrue;
  }

  std::string updateList;
  std::string progressList;
  if (iProperties.GetProperty(iFeatureId, "updatelist", updateList) == EFalse ||
      iProperties.GetProperty(iFeatureId, "updateprogresslist", progressList) == EFalse) {
    KLog.Error("ParseProperties", "Failed to retrieve 'updatelist' property");
    return EFalse;
  }

  KLog.Info("ParseProperties", "updatelist: ", updateList, ", progresslist: ", progressList);
  iFactory->Create(updateList, progressList, iLoaders, iFeatureId, iEventBroker, iProperties,
                   *this);
  iTotalWeight = 0;
  iCompletedWeight = 0;
  for (const auto& entry : iLoaders) {
    iTotalWeight += static_cast<TUint32>(entry.second);
  }
  return ETrue;
}

void CMainCPULoader::HandleControllerPrepare() {
  KLog.Info("HandleControllerPrepare");

  TBool result = ParseProperties();
  for (auto entry = iLoaders.begin(); result != EFalse && entry != iLoaders.end(); ++entry) {
    result = entry->first->Prepare();
  }
  PostResult(EUserEventPrepareResult, result);
}

void CMainCPULoader::HandleControllerInstall() {
  KLog.Info("HandleControllerInstall");

  iCurrentIndex = 0;
  if (iLoaders.empty()) {
    PostResult(EUserEventInstallResult, ETrue);
    return;
  }
  // iCompletedWeight keeps the sum of an earlier run, so a second run's percentages start high.
  StartLoader(0);
}

void CMainCPULoader::HandleControllerAbort() {
  KLog.Info("HandleControllerAbort");

  if (iCurrentLoader != nullptr) {
    iCurrentLoader->Abort();
  } else {
    HandleLoaderAborted();
  }
}

void CMainCPULoader::HandleLoaderCompleted() {
  KLog.Info("HandleLoaderCompleted");

  const std::size_t next = iCurrentIndex + std::size_t{1};
  if (next < iLoaders.size() % KCountModulus) {
    iCompletedWeight += iCurrentWeight;
    StartLoader(static_cast<std::uint16_t>(next));
    return;
  }
  PostResult(EUserEventInstallResult, ETrue);
  KLog.Always("HandleLoaderCompleted", "SWL: Finished upload in MainCPULoader");
}

void CMainCPULoader::HandleLoaderFailed() {
  KLog.Info("HandleLoaderFailed");

  PostResult(EUserEventInstallResult, EFalse);
}

void CMainCPULoader::HandleLoaderAborted() {
  KLog.Info("HandleLoaderAborted");

  PostResult(EUserEventAbortResult, ETrue);
}

void CMainCPULoader::HandleLoaderProgress(TUint8 received) {
  KLog.Info("HandleLoaderProgress");

  if (iLoaders.empty()) {
    return;
  }
  const TUint32 weighted = iCurrentWeight * received + iCompletedWeight * 100;
  const auto overall = static_cast<TUint8>(iTotalWeight == 0 ? 0 : weighted / iTotalWeight);
  KLog.Info("HandleLoaderProgress", "Calculated progress: ", overall,
            ". Received progress: ", received);
  PostProgress(overall);
}

bool CMainCPULoader::AddressesUs(const TEvent& event) const {
  if (event.iData == nullptr) {
    return event.iSize == 0 && iFeatureId.empty();
  }
  return iFeatureId.compare(0, TFeatureId::npos, static_cast<const char*>(event.iData),
                            event.iSize) == 0;
}

void CMainCPULoader::StartLoader(std::uint16_t index) {
  iCurrentIndex = index;
  iCurrentLoader = iLoaders[index].first;
  iCurrentWeight = static_cast<TUint32>(iLoaders[index].second);
  iCurrentLoader->Install();
}

void CMainCPULoader::PostUserEvent(TUint32 code, const void* payload, TUint32 size) {
  iEventBroker.PostEvent(TEvent{EEventUser, code, size, payload});
}

void CMainCPULoader::PostResult(TUint32 code, TBool result) {
  TFeatureResultPayload payload{};
  CopyFeatureId(payload.iFeatureId, iFeatureId);
  payload.iResult = result;
  PostUserEvent(code, &payload, sizeof payload);
}

void CMainCPULoader::PostProgress(TUint8 percentage) {
  TFeatureProgressPayload payload{};
  CopyFeatureId(payload.iFeatureId, iFeatureId);
  payload.iPercentage = percentage;
  PostUserEvent(EUserEventInstallProgress, &payload, sizeof payload);
}

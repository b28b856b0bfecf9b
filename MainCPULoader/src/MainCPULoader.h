#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "host/EventBroker.h"
#include "host/FeatureModule.h"
#include "host/FeatureProperties.h"
#include "host/InterfaceBroker.h"

class CLoaderFactory;

/**
 * The feature: reacts to the host's prepare, install and abort events, runs the loaders of the
 * update list strictly one after another, and reports results and weighted progress.
 *
 * Owns the factory and every loader. Driven by the host's event thread alone; the loaders call
 * back into it directly. Its subscriptions live exactly as long as the object.
 */
class CMainCPULoader : public IFeatureModule2, public ILoaderCallback, public IEventObserver {
 public:
  /** Subscribes and announces the feature. The factory becomes the controller's. */
  CMainCPULoader(const TFeatureId& featureId, IInterfaceBroker& interfaceBroker,
                 IEventBroker& eventBroker, const IFeatureProperties& properties,
                 CLoaderFactory* factory);
  ~CMainCPULoader() override;

  CMainCPULoader(const CMainCPULoader&) = delete;
  CMainCPULoader& operator=(const CMainCPULoader&) = delete;

  void Progress(TUint32 remainingSize, TUint32 totalSize) override;
  void Completed(TBool successful) override;
  void Aborted() override;

  void OnEvent(const TEvent& event) override;

 private:
  void SubscribeEvents();
  void UnsubscribeEvents();

  TBool ParseProperties();
  void HandleControllerPrepare();
  void HandleControllerInstall();
  void HandleControllerAbort();
  void HandleLoaderCompleted();
  void HandleLoaderFailed();
  void HandleLoaderAborted();
  void HandleLoaderProgress(TUint8 received);

  bool AddressesUs(const TEvent& event) const;
  void StartLoader(std::uint16_t index);
  void PostUserEvent(TUint32 code, const void* payload, TUint32 size);
  void PostResult(TUint32 code, TBool result);
  void PostProgress(TUint8 percentage);

  TFeatureId iFeatureId;
  const IFeatureProperties& iProperties;
  IEventBroker& iEventBroker;
  std::vector<std::pair<ILoader*, int>> iLoaders;  // owned; in run order, with their weights
  ILoader* iCurrentLoader = nullptr;               // the one last started, also after its end
  std::uint16_t iCurrentIndex = 0;
  TUint32 iCompletedWeight = 0;
  TUint32 iCurrentWeight = 0;
  TUint32 iTotalWeight = 0;
  TEvent iPrepareEvent{};
  TEvent iInstallEvent{};
  TEvent iAbortEvent{};
  CLoaderFactory* iFactory;  // owned
};

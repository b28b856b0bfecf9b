#pragma once

#include <string>

#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "host/EventBroker.h"
#include "host/FeatureProperties.h"

/**
 * Restores a block of factory data: copies a range of bytes of a file to a device with one `dd`.
 * The whole work happens inside Install, which blocks the event thread for the copy.
 *
 * Properties, each with the item's name in front: "source", "target", "offset" and "size" (bytes).
 */
class CFactoryDataLoader : public ILoader, public IEventObserver {
 public:
  CFactoryDataLoader(std::string loaderId, std::string& featureId, IEventBroker& eventBroker,
                     const IFeatureProperties& properties, ILoaderCallback& callback);

  TBool Prepare() override;
  void Install() override;
  void Abort() override;

  /** Only logs: this loader subscribes to nothing. */
  void OnEvent(const TEvent& event) override;

  /** Read the four properties; stops at the first that is missing. */
  TBool FillFactoryDataProperties();

 private:
  bool ReadProperty(const char* suffix, const char* label, std::string& value);

  std::string iLoaderId;
  std::string iFeatureId;
  [[maybe_unused]] IEventBroker& iEventBroker;
  const IFeatureProperties& iProperties;
  ILoaderCallback& iCallback;
  std::string iSource;
  std::string iTarget;
  TInt32 iOffset = 0;
  TInt32 iSize = 0;
};

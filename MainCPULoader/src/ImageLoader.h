#pragma once

#include <string>

#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "SWLInfra/src/DDWrapper.h"
#include "host/EventBroker.h"
#include "host/FeatureProperties.h"

/**
 * Writes a compressed raw image to a device. A dd wrapper runs the copy; this class drives it with
 * the host's events, one step for each tick of a timer and for each message of dd, reports
 * progress, and has the partition table rewritten at the end.
 *
 * Properties, each with the item's name in front: "source" (or "altsource", which is taken instead
 * when it names a file), "target", "targetsize" (bytes) and "checksum", and optionally "version"
 * and "blocksize" (as dd takes it).
 *
 * Owns the wrapper and both subscriptions. An Abort ends the copy; the wrapper goes with the
 * loader, or when another Prepare replaces it.
 */
class CImageLoader : public ILoader, public IEventObserver {
 public:
  CImageLoader(std::string loaderId, std::string& featureId, IEventBroker& eventBroker,
               const IFeatureProperties& properties, ILoaderCallback& callback);
  ~CImageLoader() override;

  CImageLoader(const CImageLoader&) = delete;
  CImageLoader& operator=(const CImageLoader&) = delete;

  TBool Prepare() override;
  void Install() override;
  void Abort() override;
  void OnEvent(const TEvent& event) override;

  /** Read the properties. @return EFalse when one is missing or is no number. */
  TBool FillImageProperties();

  /** End the subscriptions that there are. */
  void Cleanup();

 private:
  bool ReadProperty(const char* suffix, const char* label, std::string& value);
  bool ReadRequiredProperty(const char* suffix, const char* label, std::string& value);
  bool ReadDevelopmentOverride();
  bool ReadTargetSize();

  TDDWrapperResult StartCopy(int& descriptor, unsigned& period);
  void DiscardWrapper();
  void UnsubscribeTimer();
  void UnsubscribeDescriptor();

  static bool RewritePartitionTable();
  void ReportProgress(TUint32 bytes);

  std::string iLoaderId;
  std::string iFeatureId;
  IEventBroker& iEventBroker;
  const IFeatureProperties& iProperties;
  ILoaderCallback& iCallback;
  TEvent iTimerSubscription{};       // iSize is 0 while there is none
  TEvent iDescriptorSubscription{};  // iCode is that of -1 while there is none
  std::string iSource;
  std::string iTarget;
  std::string iTargetSize;
  std::string iBlockSize;
  std::string iVersion;
  std::string iChecksum;
  TUint32 iLoadSize = 0;
  TUint32 iRemainingSize = 0;  // the smallest that has been reported
  IDDWrapper* iDDWrapper = nullptr;
};

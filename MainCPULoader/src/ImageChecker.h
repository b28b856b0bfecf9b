#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "MainCPULoader/src/DecompressorPace.h"
#include "MainCPULoader/src/InputProcess.h"
#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "host/EventBroker.h"
#include "host/FeatureProperties.h"

/**
 * Verifies that a device holds the content of a gzip-compressed image: decompresses the image,
 * reads the device, and compares both piece by piece. One step, of up to KTransferSize bytes, for
 * each event on the device's descriptor.
 *
 * Properties, each with the item's name in front: "source" (the image), "target" (the device or
 * file), "targetsize" (bytes to compare, 64 bits).
 *
 * After the end of the check it stays subscribed until it is destroyed: an event that still comes
 * runs another step.
 */
class CImageChecker : public ILoader, public IEventObserver {
 public:
  /** Size of both buffers: bytes that are read and compared at a time. */
  static constexpr TUint32 KChunkSize = 4096;
  /** The most that one event compares. */
  static constexpr TUint32 KTransferSize = 2 * 1024 * 1024;

  /** @param decompressor  becomes the checker's own. */
  CImageChecker(std::string name, const std::string& featureId, IEventBroker& eventBroker,
                const IFeatureProperties& properties, ILoaderCallback& callback,
                CInputProcess* decompressor);
  ~CImageChecker() override;

  CImageChecker(const CImageChecker&) = delete;
  CImageChecker& operator=(const CImageChecker&) = delete;

  TBool Prepare() override;
  void Install() override;
  /** Only reports: everything is kept until the checker is destroyed. */
  void Abort() override;
  void OnEvent(const TEvent& event) override;

  /** Read the three properties; stops at the first that is missing or wrong. */
  TBool FillImageProperties();
  /** @param key  without the item's name. */
  TBool ReadStringProperty(const std::string& key, std::string& value);
  /** Read a decimal number; a negative one is stored as its two's complement. */
  TBool ReadLLProperty(const std::string& key, unsigned long long& value);

 private:
  struct TFree {
    void operator()(TUint8* buffer) const { std::free(buffer); }  // NOLINT: it is from malloc
  };
  using TBuffer = std::unique_ptr<TUint8, TFree>;

  bool CompareStep(unsigned long long step);
  bool FillSourceBuffer(TUint32 length, unsigned long long step, CDecompressorPace& pace);
  bool FillTargetBuffer(TUint32 length);
  void Release();

  std::string iLoaderName;
  std::string iFeatureId;
  IEventBroker& iEventBroker;
  const IFeatureProperties& iProperties;
  ILoaderCallback& iCallback;
  std::string iSource;
  std::string iTarget;
  unsigned long long iTotalSize = 0;
  unsigned long long iBytesLeft = 0;
  std::unique_ptr<CInputProcess> iDecompressor;
  int iTargetDescriptor = -1;
  TBuffer iSourceBuffer;
  TBuffer iTargetBuffer;
  TEvent iFilter{};  // valid while subscribed
  bool iSubscribed = false;
};

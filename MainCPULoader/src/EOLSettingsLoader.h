#pragma once

#include <string>

#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "host/FeatureProperties.h"

/**
 * Restores the end-of-line settings: copies a range of bytes of a file into a file on a file system
 * of its own, which is mounted for the purpose at "/tmp/eolmountpoint". The whole work happens
 * inside Install, as shell commands that block the event thread.
 *
 * Properties, each with the item's name in front: "source", "target" (the device that holds the
 * file system), "targetfilename" (relative to its root), "offset" and "size" (bytes).
 */
class CEOLSettingsLoader : public ILoader {
 public:
  CEOLSettingsLoader(std::string loaderId, std::string& featureId,
                     const IFeatureProperties& properties, ILoaderCallback& callback);

  TBool Prepare() override;
  void Install() override;
  void Abort() override;

  /** Read the five properties; stops at the first that is missing. */
  TBool EOLSettingsProperties();

 private:
  /** The first line of the log that a failure writes; all later ones follow it. */
  enum TFailureStage { EMakeDirectory, ECopy, EUnmount, ERestore, ENone };
  struct TOutcome {
    TFailureStage iStage;  // ENone: restored
    int iResult;           // of the command that failed
  };

  bool ReadProperty(const char* suffix, const char* label, std::string& value);
  TOutcome Restore() const;
  static void LogFailure(const TOutcome& outcome);

  std::string iLoaderId;
  std::string iFeatureId;
  const IFeatureProperties& iProperties;
  ILoaderCallback& iCallback;
  std::string iSource;
  std::string iTarget;
  std::string iTargetFileName;
  TUint32 iOffset = 0;
  TUint32 iSize = 0;
};

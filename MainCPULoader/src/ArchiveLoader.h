#pragma once

#include <string>

#include "MainCPULoader/src/ArchiveLoaderOutputProcess.h"
#include "MainCPULoader/src/InputProcess.h"
#include "MainCPULoader/src/Loader.h"
#include "MainCPULoader/src/LoaderCallback.h"
#include "MainCPULoader/src/SwlArchive.h"
#include "MainCPULoader/src/SwlFileList.h"
#include "SWLInfra/src/FileHandler.h"
#include "host/EventBroker.h"
#include "host/FeatureProperties.h"

/**
 * Installs a gzip-compressed tar archive onto a file system: mounts the device, runs zcat and tar,
 * and moves up to 262,144 bytes from one to the other with every timer event. It has finished
 * when the byte count reaches the uncompressed size that the archive's last four bytes tell; then
 * it ends both children, unmounts, and reports.
 *
 * Properties, each with the item's name in front: "source" (path of the archive), "target" (the
 * device), "mountpoint" and "filesystem" (only logged).
 *
 * Owns the two pipes from its construction until it has finished. One that is destroyed before,
 * or was aborted, leaves them, their children and the mount behind.
 */
class CArchiveLoader : public ILoader, public IEventObserver {
 public:
  CArchiveLoader(std::string name, std::string& featureId, IEventBroker& eventBroker,
                 const IFeatureProperties& properties, ILoaderCallback& callback,
                 CInputProcess* decompressor, CArchiveLoaderOutputProcess* unpacker);
  ~CArchiveLoader() override;

  CArchiveLoader(const CArchiveLoader&) = delete;
  CArchiveLoader& operator=(const CArchiveLoader&) = delete;

  /** Read the properties. EFalse when one is missing. */
  TBool Prepare() override;

  /**
   * Mount, check, start the children and subscribe to the timer. A failure is logged and reported
   * by the first step.
   */
  void Install() override;

  /** Stop stepping. The children and the mount stay. */
  void Abort() override;

  /** One step, whatever the event: blocks for one read and one complete write. */
  void OnEvent(const TEvent& event) override;

  /** Read the four properties; stops at the first that is missing. */
  TBool FillArchiveProperties();

  /** End the children, unmount and report; may run twice in one step. */
  void FinalizeLoading(int result);

  // File-system operations; they return loader result codes, 0 for success.
  static int MountFileSystem(const std::string& device, const std::string& mountpoint,
                             const std::string& type);
  static int UmountFileSystem(const std::string& mountpoint);
  static int FormatFileSystem(const std::string& device, const std::string& second,
                              const std::string& type);

  /** EFormatFAT for exactly "FAT", otherwise EFormatEXT3. */
  static IFileHandler::TFileSystemFormat FileSystemType(const std::string& type);

  /**
   * The uncompressed size in bytes that a gzip file's trailer tells: of its last member, modulo
   * 2^32, as a signed number. -1 on failure, which a size of 2^32 - 1 cannot be told from.
   */
  static int FileSizeUncompressedDataGzip(const char* file);

  // Results of the file handler, of file lists and of archives as loader result codes; 19 for
  // those that have none.
  static int Translate(IFileHandler::TFileHndlError error);
  static int Translate(ISwlFileList::TSwlFileListError error);
  static int Translate(ISwlArchive::TSwlArchiveError error);

 private:
  static constexpr int KStepSize = 262144;

  bool MountTarget();
  bool CheckPaths();
  bool DetermineTotalSize();
  void StartChildren(bool ready);
  bool StartDecompressor();
  bool StartUnpacker();
  void SubscribeTimer();
  int ReadStep();
  bool WriteStep(int count);

  TInt32 iTotalSize = 0;
  TInt32 iBytesDone = 0;
  char iBuffer[KStepSize];  // one step; inside the object, so that no step allocates
  std::string iLoaderName;
  std::string iFeatureId;
  IEventBroker& iEventBroker;
  const IFeatureProperties& iProperties;
  ILoaderCallback& iCallback;
  CInputProcess* iDecompressor;
  CArchiveLoaderOutputProcess* iUnpacker;
  TEvent iTimer{};
  std::string iSource;
  std::string iTarget;
  std::string iMountPoint;
  std::string iFileSystemType;
  bool iSubscribed = false;
};

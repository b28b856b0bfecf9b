#include "MainCPULoader/src/ArchiveLoader.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "MainCPULoader/src/EventFilter.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/ArchiveLoader");

constexpr TUint32 KStepPeriod = 1;          // milliseconds
constexpr int KUnpackerCapacity = 1048576;  // lets tar work on while the host waits for the timer
constexpr long KTrailerSizeField = 4;       // the last bytes of a gzip file, in the machine's order

constexpr int KUnknownError = 19;

/** Loader result codes by error; a row of KUnknownError is an error without a code of its own. */
constexpr int KFileHandlerResults[] = {0, 1, 2, KUnknownError, KUnknownError, 16, 17};
constexpr int KFileListResults[] = {0, 1, 8, 10, 17};
constexpr int KArchiveResults[] = {0, 1, 6, 10, 17};

template <std::size_t KCount>
int ResultOf(const int (&results)[KCount], TInt32 error, const char* unknownText) {
  const auto row = static_cast<std::size_t>(error);
  const int result = row < KCount ? results[row] : KUnknownError;
  if (result == KUnknownError) {
    KLog.Warning("Translate", unknownText, error);
  }
  return result;
}

}  // namespace

CArchiveLoader::CArchiveLoader(std::string name, std::string& featureId, IEventBroker& eventBroker,
                               const IFeatureProperties& properties, ILoaderCallback& callback,
                               CInputProcess* decompressor, CArchiveLoaderOutputProcess* unpacker)
    : iLoaderName(std::move(name)),
      iFeatureId(featureId),
      iEventBroker(eventBroker),
      iProperties(properties),
      iCallback(callback),
      iDecompressor(decompressor),
      iUnpacker(unpacker) {}

// The pipes stay: a child that still runs is not waited for here.
CArchiveLoader::~CArchiveLoader() {
  iEventBroker.Unsubscribe(iTimer, this);
}

TBool CArchiveLoader::Prepare() {
  KLog.Info("Prepare", "ArchiveLoader");

  const TBool result = FillArchiveProperties();
  if (result == EFalse) {
    KLog.Error("Prepare", "ArchiveLoader: Failed to retrieve properties: ", result);
  }
  return result;
}

TBool CArchiveLoader::FillArchiveProperties() {
  struct TProperty {
    const char* iSuffix;
    const char* iLabel;
    std::string& iValue;
  };
  const TProperty properties[] = {
      {"source", " source: ", iSource},
      {"target", " target device: ", iTarget},
      {"mountpoint", " mountpoint: ", iMountPoint},
      {"filesystem", " filesystemtype: ", iFileSystemType},
  };

  for (const auto& property : properties) {
    if (iProperties.GetProperty(iFeatureId, iLoaderName + property.iSuffix, property.iValue) ==
        EFalse) {
      return EFalse;
    }
    KLog.Info("FillArchiveProperties", "ArchiveLoader: ", iLoaderName, property.iLabel,
              property.iValue);
  }
  return ETrue;
}

void CArchiveLoader::Install() {
  KLog.Info("Install", "ArchiveLoader");

  if (MountTarget()) {
    const bool pathsExist = CheckPaths();
    const bool sizeKnown = DetermineTotalSize();
    StartChildren(pathsExist && sizeKnown);
  }
  // Also after a failure: the first step finds nothing to read and reports it.
  SubscribeTimer();
}

bool CArchiveLoader::MountTarget() {
  KLog.Info("Install", "ArchiveLoader: Mounting filesystem");
  // The format follows from the item's name; the property "filesystem" has no say in it.
  const int result = MountFileSystem(iTarget, iMountPoint, iLoaderName);
  if (result != 0) {
    KLog.Error("Install", "ArchiveLoader: Unable to mount filesystem: ", result);
    KLog.Error("Install", "ArchiveLoader: Check filesystem failed: ", result);
  }
  return result == 0;
}

bool CArchiveLoader::CheckPaths() {
  KLog.Info("Install", "ArchiveLoader: Checking filesystem");
  bool good = true;
  if (IFileHandler::FolderExists(Bytes(iMountPoint)) == IFileHandler::EFileHndlOk) {
    KLog.Info("Install", "ArchiveLoader: found destination: ", iMountPoint);
  } else {
    KLog.Error("Install", "ArchiveLoader: could not find destination: ", iMountPoint);
    good = false;
  }
  if (IFileHandler::FileExists(Bytes(iSource)) == IFileHandler::EFileHndlOk) {
    KLog.Info("Install", "ArchiveLoader: found archive: ", iSource);
  } else {
    KLog.Error("Install", "ArchiveLoader: could not find archive: ", iSource);
    good = false;
  }
  return good;
}

bool CArchiveLoader::DetermineTotalSize() {
  const int size = FileSizeUncompressedDataGzip(iSource.c_str());
  if (size == -1) {
    KLog.Error("Install", "ArchiveLoader: could not determine fileSize of archive: ", iSource);
    return false;
  }
  iTotalSize = size;
  KLog.Info("Install", "ArchiveLoader: FileSize of uncompressed archive: ", size);
  return true;
}

void CArchiveLoader::StartChildren(bool ready) {
  // Which text stands for which cause is as readers of the log know it.
  const bool decompressing = ready && StartDecompressor();
  if (!decompressing) {
    KLog.Error("Install", "ArchiveLoader: Failed to create archiveLoaderOutput.");
  }
  if (!decompressing || !StartUnpacker()) {
    KLog.Error("Install", "ArchiveLoader: Failed to create archiveLoaderInput.");
  }
}

bool CArchiveLoader::StartDecompressor() {
  if (iDecompressor == nullptr) {
    // Finished before: the pipes went with the first run.
    return false;
  }
  // As much as one step takes and no more: see CInputProcess::Read.
  iDecompressor->SetCapacity(KStepSize);
  return iDecompressor->Create(Bytes(iSource));
}

bool CArchiveLoader::StartUnpacker() {
  if (iUnpacker == nullptr) {
    return false;
  }
  iUnpacker->SetCapacity(KUnpackerCapacity);
  return iUnpacker->Create(Bytes(iMountPoint));
}

void CArchiveLoader::SubscribeTimer() {
  // A run that is started again while it runs must not step twice, nor outlive this object.
  if (iSubscribed) {
    iEventBroker.Unsubscribe(iTimer, this);
  }
  iTimer = RepeatingTimer(KStepPeriod);
  iEventBroker.Subscribe(iTimer, this);
  iSubscribed = true;
}

void CArchiveLoader::Abort() {
  KLog.Info("Abort", "ArchiveLoader");

  iEventBroker.Unsubscribe(iTimer, this);
  iSubscribed = false;
  iCallback.Aborted();
}

void CArchiveLoader::OnEvent(const TEvent& /*event*/) {
  const int count = ReadStep();
  if (count == 0) {
    iTotalSize = iBytesDone;
  } else if (count < 0 || !WriteStep(count)) {
    KLog.Error("OnEvent", "ArchiveLoader: Error installing update. retVal = ", count);
    FinalizeLoading(EFalse);
  } else {
    const std::int64_t done = std::int64_t{iBytesDone} + count;
    iBytesDone = static_cast<TInt32>(std::min<std::int64_t>(done, iTotalSize));
    const auto total = static_cast<TUint32>(iTotalSize);
    iCallback.Progress(total - static_cast<TUint32>(iBytesDone), total);
  }

  // Also after a failed step: one whose counters are equal reports failure and then success.
  if (iBytesDone == iTotalSize) {
    KLog.Info("OnEvent", "ArchiveLoader: Updates installed");
    FinalizeLoading(ETrue);
  }
}

int CArchiveLoader::ReadStep() {
  return iDecompressor == nullptr ? -1 : iDecompressor->Read(iBuffer, KStepSize);
}

bool CArchiveLoader::WriteStep(int count) {
  return iUnpacker != nullptr && iUnpacker->Write(iBuffer, count);
}

void CArchiveLoader::FinalizeLoading(int result) {
  iEventBroker.Unsubscribe(iTimer, this);
  iSubscribed = false;
  delete std::exchange(iDecompressor, nullptr);
  // Its end is the end of the unpacking.
  delete std::exchange(iUnpacker, nullptr);
  UmountFileSystem(iMountPoint);
  iCallback.Completed(result);
}

int CArchiveLoader::MountFileSystem(const std::string& device, const std::string& mountpoint,
                                    const std::string& type) {
  return Translate(IFileHandler::Mount(Bytes(device), Bytes(mountpoint), FileSystemType(type)));
}

int CArchiveLoader::UmountFileSystem(const std::string& mountpoint) {
  return Translate(IFileHandler::Umount(Bytes(mountpoint)));
}

int CArchiveLoader::FormatFileSystem(const std::string& device, const std::string& second,
                                     const std::string& type) {
  return Translate(IFileHandler::Format(Bytes(device), Bytes(second), FileSystemType(type)));
}

IFileHandler::TFileSystemFormat CArchiveLoader::FileSystemType(const std::string& type) {
  return type == "FAT" ? IFileHandler::EFormatFAT : IFileHandler::EFormatEXT3;
}

int CArchiveLoader::FileSizeUncompressedDataGzip(const char* file) {
  constexpr const char* KFunction = "FileSizeUncompressedDataGzip";
  FILE* stream = IFileHandler::FOpen(file, "r");
  if (stream == nullptr) {
    KLog.Error(KFunction, "ArchiveLoader: Could not open compressed file: ", file);
    return -1;
  }
  // Closing is part of success only: a stream that cannot be read stays open, here and below.
  if (IFileHandler::FSeek(stream, -KTrailerSizeField, SEEK_END) < 0) {
    KLog.Error(KFunction, "ArchiveLoader: Could not seek in file: ", file);
    return -1;
  }
  TInt32 size = 0;
  static_assert(sizeof size == KTrailerSizeField);
  if (IFileHandler::FRead(&size, sizeof size, 1, stream) != 1) {
    KLog.Error(KFunction, "ArchiveLoader: Could not read in file: ", file);
    return -1;
  }
  if (IFileHandler::FClose(stream) != 0) {
    KLog.Error(KFunction, "ArchiveLoader: Could not close file: ", file);
    return -1;
  }
  return size;
}

int CArchiveLoader::Translate(IFileHandler::TFileHndlError error) {
  return ResultOf(KFileHandlerResults, error, "Unknown file handler error : ");
}

int CArchiveLoader::Translate(ISwlFileList::TSwlFileListError error) {
  return ResultOf(KFileListResults, error, "Unknown filelist error : ");
}

int CArchiveLoader::Translate(ISwlArchive::TSwlArchiveError error) {
  return ResultOf(KArchiveResults, error, "Unknown archive handler error : ");
}

#include "MainCPULoader/src/ImageChecker.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "MainCPULoader/src/EventFilter.h"
#include "SWLInfra/src/ChildProcess.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr CLog KLog(logging::MainCPULoader, "MainCPULoader/src/ImageChecker");

TUint8* NewBuffer() {
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): not initialised, and freed as such
  return static_cast<TUint8*>(std::malloc(CImageChecker::KChunkSize));
}

}  // namespace

CImageChecker::CImageChecker(std::string name, const std::string& featureId,
                             IEventBroker& eventBroker, const IFeatureProperties& properties,
                             ILoaderCallback& callback, CInputProcess* decompressor)
    : iLoaderName(std::move(name)),
      iFeatureId(featureId),
      iEventBroker(eventBroker),
      iProperties(properties),
      iCallback(callback),
      iDecompressor(decompressor) {}

CImageChecker::~CImageChecker() {
  // Without a subscription there is nothing but, after a failed Install, a descriptor that stays
  // open: it is closed with what was subscribed only.
  if (iSubscribed) {
    Release();
  }
}

TBool CImageChecker::Prepare() {
  KLog.Info("Prepare", "ImageChecker");

  if (FillImageProperties() == EFalse) {
    KLog.Error("Prepare", "ImageChecker: Failed to retrieve properties");
    return EFalse;
  }
  iBytesLeft = iTotalSize;
  return ETrue;
}

void CImageChecker::Install() {
  KLog.Interface("virtual void CImageChecker::Install()", "ImageChecker");

  Release();
  iTargetDescriptor = open(iTarget.c_str(), O_RDONLY | O_CLOEXEC);
  bool started = false;
  if (iDecompressor) {
    iDecompressor->SetCapacity(CDecompressorPace::StartCapacity(iBytesLeft));
    started = iDecompressor->Create(Bytes(iSource));
  }
  if (!started || iTargetDescriptor == -1) {
    KLog.Error("Install", "ImageChecker: Cannot open input or output file.");
    iCallback.Completed(EFalse);
    return;
  }

  iSourceBuffer.reset(NewBuffer());
  iTargetBuffer.reset(NewBuffer());
  iFilter = Readable(iTargetDescriptor);
  iEventBroker.Subscribe(iFilter, this);
  iSubscribed = true;
}

void CImageChecker::Abort() {
  KLog.Interface("virtual void CImageChecker::Abort()", "ImageChecker");

  iCallback.Aborted();
}

void CImageChecker::OnEvent(const TEvent& /*event*/) {
  KLog.Interface("virtual void CImageChecker::OnEvent(const TEvent&)", "ImageChecker");

  const auto step = std::min<unsigned long long>(KTransferSize, iBytesLeft);
  if (step == 0) {
    return;
  }
  if (!CompareStep(step)) {
    iCallback.Completed(EFalse);
  } else if (iBytesLeft == 0) {
    iCallback.Completed(ETrue);
  } else {
    iCallback.Progress(static_cast<TUint32>(iBytesLeft), static_cast<TUint32>(iTotalSize));
  }
}

TBool CImageChecker::FillImageProperties() {
  if (iLoaderName.empty() || ReadStringProperty("source", iSource) == EFalse ||
      ReadStringProperty("target", iTarget) == EFalse) {
    return EFalse;
  }
  return ReadLLProperty("targetsize", iTotalSize);
}

TBool CImageChecker::ReadStringProperty(const std::string& key, std::string& value) {
  if (iProperties.GetProperty(iFeatureId, iLoaderName + key, value) == EFalse) {
    KLog.Error("ReadStringProperty", "ImageChecker: Failed to retrieve '", key, "' property");
    return EFalse;
  }
  KLog.Info("ReadStringProperty", "ImageChecker: ", iLoaderName, " ", key, ": ", value);
  return ETrue;
}

TBool CImageChecker::ReadLLProperty(const std::string& key, unsigned long long& value) {
  std::string text;
  if (iProperties.GetProperty(iFeatureId, iLoaderName + key, text) == EFalse) {
    KLog.Error("ReadLLProperty", "ImageChecker: Failed to retrieve '", key, "' property");
    return EFalse;
  }

  char* end = nullptr;
  value = static_cast<unsigned long long>(std::strtoll(text.c_str(), &end, 10));
  if (*end != '\0') {
    KLog.Error("ReadLLProperty", "ImageChecker: Failed to parse '", key, "' property");
    return EFalse;
  }
  KLog.Info("ReadLLProperty", "ImageChecker: ", iLoaderName, " ", key, ": ", std::to_string(value));
  return ETrue;
}

/** Compare the next step bytes piece by piece; false, after an error line, when that fails. */
bool CImageChecker::CompareStep(unsigned long long step) {
  if (!iSourceBuffer) {
    // Not installed: there is nothing to read from.
    KLog.Error("OnEvent", "Read failure on ", iSource);
    return false;
  }

  CDecompressorPace pace(*iDecompressor);
  while (step != 0) {
    const auto length = static_cast<TUint32>(std::min<unsigned long long>(step, KChunkSize));
    if (!FillSourceBuffer(length, step, pace)) {
      KLog.Error("OnEvent", "Read failure on ", iSource);
      return false;
    }
    if (!FillTargetBuffer(length)) {
      KLog.Error("OnEvent", "Read failure on ", iTarget);
      return false;
    }
    if (std::memcmp(iSourceBuffer.get(), iTargetBuffer.get(), length) != 0) {
      const unsigned long long position = iTotalSize - iBytesLeft;
      KLog.Error("OnEvent", "Comparison failure between ", std::to_string(position), " and ",
                 std::to_string(position + length));
      return false;
    }
    step -= length;
    iBytesLeft -= length;
  }
  return true;
}

bool CImageChecker::FillSourceBuffer(TUint32 length, unsigned long long step,
                                     CDecompressorPace& pace) {
  for (TUint32 got = 0; got < length;) {
    const TUint32 wanted = length - got;
    pace.BeforeRead(wanted, step - got, iBytesLeft - got);
    const int count = iDecompressor->Read(reinterpret_cast<char*>(iSourceBuffer.get() + got),
                                          static_cast<int>(wanted));
    if (count <= 0) {
      return false;
    }
    got += static_cast<TUint32>(count);
  }
  return true;
}

bool CImageChecker::FillTargetBuffer(TUint32 length) {
  for (TUint32 got = 0; got < length;) {
    // Files and block devices are not interrupted by signals, so there is no EINTR to retry.
    const ssize_t count = read(iTargetDescriptor, iTargetBuffer.get() + got, length - got);
    if (count <= 0) {
      return false;
    }
    got += static_cast<TUint32>(count);
  }
  return true;
}

/** Give back what Install took, except the decompressor. */
void CImageChecker::Release() {
  if (iSubscribed) {
    iEventBroker.Unsubscribe(iFilter, this);
    iSubscribed = false;
  }
  iSourceBuffer.reset();
  iTargetBuffer.reset();
  CloseEnd(iTargetDescriptor);
}

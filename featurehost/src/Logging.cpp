#include "host/Logging.h"

#include <string>

#include "featurehost/src/Log.h"
#include "featurehost/src/ProcessGuard.h"

namespace logging {

namespace {

class Control : public CControl {
 public:
  TBool IsEnabled(const char* /*module*/, const char* category) const override {
    featurehost::EndClone();
    return featurehost::Log::Instance().IsEnabled(category) ? ETrue : EFalse;
  }
};

}  // namespace

CControl& IControl() {
  static Control control;
  return control;
}

namespace internals {

// The lines go to the process's one log; the contract's object only stands for it.
class CLog {};

CLog& ILog() {
  static CLog log;
  return log;
}

struct CLogHandle::CLine {
  bool enabled;
  const char* category;
  const char* module;
  const char* function;
  const char* source;
  TUint32 line;
  std::string message;
};

CLogHandle::CLogHandle(CLog& /*log*/, TBool enabled, const char* category, const char* module,
                       const char* function, const char* source, TUint32 line) {
  featurehost::EndClone();
  iLine = new CLine{enabled != EFalse, category, module, function, source, line, ""};
}

CLogHandle::~CLogHandle() {
  if (iLine->enabled) {
    featurehost::Log::Instance().Write(iLine->category, iLine->module, iLine->function,
                                       iLine->source, iLine->line, iLine->message);
  }
  delete iLine;
}

CLogHandle& CLogHandle::operator<<(const char* text) {
  if (iLine->enabled) {
    iLine->message += text == nullptr ? "(null)" : text;
  }
  return *this;
}

CLogHandle& CLogHandle::operator<<(const TChr* text) {
  return *this << reinterpret_cast<const char*>(text);
}

CLogHandle& CLogHandle::operator<<(TInt32 number) {
  return *this << std::to_string(number).c_str();
}

CLogHandle& CLogHandle::operator<<(TUint32 number) {
  return *this << std::to_string(number).c_str();
}

CLogHandle& CLogHandle::operator<<(TUint8 number) {
  return *this << std::to_string(number).c_str();
}

}  // namespace internals
}  // namespace logging

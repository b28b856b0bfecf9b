#include "tests/support/RecordedLog.h"

#include <algorithm>
#include <tuple>

namespace logging {

namespace {

class RecordingControl : public CControl {
 public:
  TBool IsEnabled(const char* module, const char* category) const override {
    return support::RecordedLog::Instance().Answer(module, category) ? ETrue : EFalse;
  }
};

}  // namespace

CControl& IControl() {
  static RecordingControl control;
  return control;
}

namespace internals {

class CLog {};

CLog& ILog() {
  static CLog log;
  return log;
}

struct CLogHandle::CLine {
  support::LogLine text;
  bool enabled;
};

CLogHandle::CLogHandle(CLog& /*log*/, TBool enabled, const char* category, const char* module,
                       const char* function, const char* source, TUint32 line)
    : iLine(new CLine{{category, module, function, source, "", line}, enabled != EFalse}) {
  support::RecordedLog::Instance().Open(category, iLine->enabled);
}

CLogHandle::~CLogHandle() {
  if (iLine->enabled) {
    support::RecordedLog::Instance().Commit(iLine->text);
  }
  delete iLine;
}

CLogHandle& CLogHandle::operator<<(const char* text) {
  iLine->text.message += text;
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

namespace support {

namespace {

auto Compared(const LogLine& line) {
  return std::tie(line.category, line.module, line.function, line.source, line.message);
}

}  // namespace

bool operator==(const LogLine& left, const LogLine& right) {
  return Compared(left) == Compared(right);
}

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
  return stream << line.category << " " << line.module << " " << line.source << ":" << line.line
                << " " << line.function << " " << line.message;
}

RecordedLog& RecordedLog::Instance() {
  static RecordedLog log;
  return log;
}

void RecordedLog::Clear() {
  ForgetLines();
  disabled_.clear();
}

void RecordedLog::ForgetLines() {
  lines_.clear();
  questions_.clear();
  openings_.clear();
}

std::vector<LogLine> RecordedLog::LinesOf(const std::vector<std::string>& categories) const {
  std::vector<LogLine> chosen;
  for (const auto& line : lines_) {
    if (std::count(categories.begin(), categories.end(), line.category) > 0) {
      chosen.push_back(line);
    }
  }
  return chosen;
}

std::vector<std::string> RecordedLog::Texts() const {
  std::vector<std::string> texts;
  for (const auto& line : lines_) {
    texts.push_back(line.message.substr(1, line.message.length() - 3));
  }
  return texts;
}

bool RecordedLog::HasText(const std::string& text) const {
  const auto texts = Texts();
  return std::count(texts.begin(), texts.end(), text) > 0;
}

bool RecordedLog::Answer(const std::string& module, const std::string& category) {
  questions_.emplace_back(module, category);
  return std::count(disabled_.begin(), disabled_.end(), category) == 0;
}

}  // namespace support

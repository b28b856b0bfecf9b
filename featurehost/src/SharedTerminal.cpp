#include "featurehost/src/SharedTerminal.h"

#include <unistd.h>

#include "featurehost/src/Log.h"
#include "featurehost/src/WriteAll.h"

namespace featurehost {

SharedTerminal::SharedTerminal(RunReport& report, ToolOutput& tools)
    : report_(report), tools_(tools) {
  tools_.Divert();
  Log::Instance().SetStandardError(tools_.StandardError());
  Log::Instance().SetAround(
      [this] {
        report_.MakeRoom();
        Show(tools_.TakeLines());
      },
      [this] { report_.Restore(); });
}

SharedTerminal::~SharedTerminal() {
  report_.MakeRoom();
  Show(tools_.TakeRest());
  report_.Restore();
  Log::Instance().SetAround(nullptr, nullptr);
  Log::Instance().SetStandardError(STDERR_FILENO);
  tools_.Restore();
}

void SharedTerminal::Tick() {
  const std::string lines = tools_.TakeLines();
  if (!lines.empty()) {
    report_.MakeRoom();
    Show(lines);
    report_.Restore();
  }
}

void SharedTerminal::Show(const std::string& lines) const {
  WriteAll(tools_.StandardError(), lines);
}

}  // namespace featurehost

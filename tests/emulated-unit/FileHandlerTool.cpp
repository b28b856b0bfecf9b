// The file handler's work on whole file systems as a program, to be run on a unit.
//
// filehandler-tool format|check|space DEVICE MOUNTPOINT FORMAT
//
// FORMAT is the number of the file-system format. Prints the log and the result, and exits with
// the result.

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <unistd.h>

#include "SWLInfra/src/FileHandler.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"

namespace {

using support::HostFakes;
using support::RecordedLog;

const TChr* Bytes(const char* text) {
  return reinterpret_cast<const TChr*>(text);
}

int Run(const std::string& operation, const char* device, const char* mountPoint,
        IFileHandler::TFileSystemFormat format) {
  if (operation == "format") {
    return IFileHandler::Format(Bytes(device), Bytes(mountPoint), format);
  }
  if (operation == "check") {
    return IFileHandler::CheckFS(Bytes(device), Bytes(mountPoint), format);
  }
  TUint32 available = 0;
  const int result = IFileHandler::AvailableSpace(Bytes(mountPoint), &available);
  std::cout << "available=" << available << "\n";
  return result;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string operation = count == 5 ? arguments[1] : "";
  if (operation != "format" && operation != "check" && operation != "space") {
    std::cerr << "usage: filehandler-tool format|check|space DEVICE MOUNTPOINT FORMAT\n";
    return 64;
  }
  HostFakes::Instance().onSleep = [](TUint32 microseconds) { usleep(microseconds); };

  const auto format = static_cast<IFileHandler::TFileSystemFormat>(std::atoi(arguments[4]));
  const int result = Run(operation, arguments[2], arguments[3], format);
  for (const auto& line : RecordedLog::Instance().Lines()) {
    std::cout << line.category << " " << line.message;
  }
  std::cout << "result=" << result << std::endl;
  return result;
}

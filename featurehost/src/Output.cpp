#include "featurehost/src/Output.h"

#include <csignal>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "featurehost/src/Log.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/WriteAll.h"

namespace featurehost {

namespace {

constexpr unsigned kUsualColumns = 80;

void Nothing(int /*signal*/) {}

}  // namespace

Output::~Output() {
  Close();
}

void Output::Write(std::string_view text) {
  const int error = descriptor_ == -1 ? 0 : WriteAll(descriptor_, text);
  if (error != 0) {
    Close();
    Log::Instance().Host(Level::kError, "Write",
                         "no more results on standard output: " + ErrorText(error));
  }
}

bool Output::IsTerminal() const {
  return descriptor_ != -1 && isatty(descriptor_) == 1;
}

unsigned Output::Columns() const {
  winsize size{};
  const bool known = ioctl(descriptor_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : kUsualColumns;
}

void Output::Close() {
  if (descriptor_ != -1) {
    close(descriptor_);
    descriptor_ = -1;
  }
}

int SeparateStandardOutput() {
  const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  return results;
}

void SurviveClosedPipes() {
  // A handler, not SIG_IGN: what is ignored would stay ignored in the tools that the shell starts.
  struct sigaction action {};
  action.sa_handler = Nothing;
  action.sa_flags = SA_RESTART;
  sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace featurehost

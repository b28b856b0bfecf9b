#pragma once

#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>

#include "MainCPULoader/src/ImageChecker.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/TempDir.h"

namespace support {

/** The state letter of a process in /proc: 'R', 'S', 'T', 'Z' and so on; 0 when it is gone. */
inline char ProcessState(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto name = text.rfind(") ");
  return name == std::string::npos ? '\0' : text[name + 2];
}

/**
 * The slowest of all readers: before every read the decompressor has come as far as it can, to
 * where it waits for room in the pipe, is stopped or has ended.
 */
class PatientInputProcess : public CInputProcess {
 public:
  int Read(char* buffer, int length) override {
    Settle();
    return CInputProcess::Read(buffer, length);
  }

 protected:
  void Settle() const {
    const pid_t child = ProcessId();
    for (int quiet = 0; child > 0 && quiet < 2;) {
      const char state = ProcessState(child);
      quiet = state == 'R' || state == 'D' ? 0 : quiet + 1;
      sched_yield();
    }
  }
};

/** One check from Prepare to its end, with a broker that delivers events as fast as it can. */
class ImageCheck {
 public:
  ImageCheck(const std::string& source, const std::string& target, unsigned long long size,
             CInputProcess* decompressor = new CInputProcess)
      : checker_("img", "feature", broker_, properties_, callback_, decompressor) {
    properties_.values = {
        {"imgsource", source}, {"imgtarget", target}, {"imgtargetsize", std::to_string(size)}};
  }

  /** Prepare and Install; the end of a check that cannot begin is already reported then. */
  void Start() {
    EXPECT_EQ(ETrue, checker_.Prepare());
    checker_.Install();
  }

  /** Deliver one event of the target's descriptor. */
  void Step() {
    ASSERT_FALSE(broker_.Subscriptions().empty()) << "nothing is subscribed";
    broker_.Deliver(broker_.Subscriptions().front().filter);
  }

  /** The whole check; the last report, "Completed 1" for a success. */
  std::string Run() {
    Start();
    while (!callback_.Ended()) {
      Step();
      if (::testing::Test::HasFatalFailure()) {
        return "";
      }
    }
    return callback_.Reports().back();
  }

  CImageChecker& Checker() { return checker_; }
  FakeBroker& Broker() { return broker_; }
  FakeCallback& Callback() { return callback_; }
  FakeProperties& Properties() { return properties_; }

 private:
  FakeBroker broker_;
  FakeProperties properties_;
  FakeCallback callback_;
  CImageChecker checker_;
};

}  // namespace support

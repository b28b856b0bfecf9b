#pragma once

#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>

#include "MainCPULoader/src/ArchiveLoader.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"

/** An archive loader "userfs" with the real pipes, and the host around it. */
class ArchiveRun {
 public:
  ArchiveRun(const std::string& archive, const std::string& device, const std::string& mountPoint) {
    properties_.values = {{"userfssource", archive},
                          {"userfstarget", device},
                          {"userfsmountpoint", mountPoint},
                          {"userfsfilesystem", "ext3"}};
  }

  ~ArchiveRun() { Destroy(); }

  ArchiveRun(const ArchiveRun&) = delete;
  ArchiveRun& operator=(const ArchiveRun&) = delete;

  ArchiveRun& Prepare() {
    EXPECT_EQ(ETrue, loader_->Prepare());
    return *this;
  }
  ArchiveRun& Install() {
    loader_->Install();
    return *this;
  }
  ArchiveRun& Step() {
    broker_.Tick();
    return *this;
  }
  ArchiveRun& StepUntil(const std::function<bool()>& reached) {
    for (int step = 0; step < KStepLimit && !reached(); ++step) {
      Step();
    }
    EXPECT_TRUE(reached()) << "not reached in " << KStepLimit << " steps";
    return *this;
  }
  ArchiveRun& StepToEnd() {
    return StepUntil([this] { return callback_.Ended(); });
  }

  CArchiveLoader& Loader() { return *loader_; }
  const std::vector<std::string>& Reports() const { return callback_.Reports(); }
  /** Reports other than of progress. */
  std::vector<std::string> Results() const {
    std::vector<std::string> results;
    for (const auto& report : Reports()) {
      if (report.rfind("Progress", 0) != 0) {
        results.push_back(report);
      }
    }
    return results;
  }
  void Forget() { callback_.Forget(); }

  /** Destroy the loader, and the pipes if it has left them, which ends their children. */
  void Destroy() {
    loader_.reset();
    if (!decompressorEnded_) {
      delete decompressor_;
    }
    if (!unpackerEnded_) {
      delete unpacker_;
    }
  }
  /** Destroy the loader alone. */
  void DestroyLoader() { loader_.reset(); }

 private:
  static constexpr int KStepLimit = 1000000;

  template <typename TPipe>
  class Tracked : public TPipe {
   public:
    explicit Tracked(bool& ended) : ended_(ended) {}
    ~Tracked() override { ended_ = true; }

   private:
    bool& ended_;
  };

  std::string featureId_ = "feature";
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  bool decompressorEnded_ = false;
  bool unpackerEnded_ = false;
  CInputProcess* decompressor_ = new Tracked<CInputProcess>(decompressorEnded_);
  CArchiveLoaderOutputProcess* unpacker_ = new Tracked<CArchiveLoaderOutputProcess>(unpackerEnded_);
  std::unique_ptr<CArchiveLoader> loader_ = std::make_unique<CArchiveLoader>(
      "userfs", featureId_, broker_, properties_, callback_, decompressor_, unpacker_);
};

/** The children of a run that has just been installed, once both have become their tools. */
struct ArchiveChildren {
  pid_t decompressor = -1;
  pid_t unpacker = -1;

  static ArchiveChildren Find() {
    ArchiveChildren found;
    for (int poll = 0; poll < 10000 && (found.decompressor == -1 || found.unpacker == -1); ++poll) {
      usleep(1000);
      for (const pid_t child : support::Children()) {
        const std::string name = NameOf(child);
        if (name == "tar") {
          found.unpacker = child;
        } else if (name == "gzip") {
          found.decompressor = child;
        }
      }
    }
    EXPECT_NE(-1, found.decompressor);
    EXPECT_NE(-1, found.unpacker);
    return found;
  }

 private:
  static std::string NameOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
  }
};

#include <gmock/gmock.h>
#include <random>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/MainCPULoader/ImageCheck.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RecordedLog.h"

namespace {

using support::ImageCheck;
using support::PatientInputProcess;
using support::RandomBytes;

constexpr std::size_t KMiB = 1024 * 1024;
constexpr int KRuns = 200;

/** A reader whose speed changes at random, and for good at one point of the stream. */
class MoodyInputProcess : public PatientInputProcess {
 public:
  explicit MoodyInputProcess(unsigned seed)
      : random_(seed), change_(random_() % 700), before_(random_() % 5), after_(random_() % 5) {}

  int Read(char* buffer, int length) override {
    if (random_() % 4 < (reads_++ < change_ ? before_ : after_)) {
      Settle();
    }
    return CInputProcess::Read(buffer, length);
  }

 private:
  std::minstd_rand random_;
  unsigned long change_;  // reads before the change
  unsigned long before_;  // 0: never waits, 4: always
  unsigned long after_;
  unsigned long reads_ = 0;
};

/** Confines this process and its children to some processors while it lives. */
class Processors {
 public:
  explicit Processors(int count) {
    sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t few;
    CPU_ZERO(&few);
    for (std::size_t processor = 0; processor < CPU_SETSIZE && CPU_COUNT(&few) < count;
         ++processor) {
      if (CPU_ISSET(processor, &before_)) {
        CPU_SET(processor, &few);
      }
    }
    available_ = CPU_COUNT(&few) == count;
    sched_setaffinity(0, sizeof few, &few);
  }
  ~Processors() { sched_setaffinity(0, sizeof before_, &before_); }

  Processors(const Processors&) = delete;
  Processors& operator=(const Processors&) = delete;

  bool Available() const { return available_; }

 private:
  cpu_set_t before_{};
  bool available_ = false;
};

class ImageCheckerSlowTest : public support::CleanTest {
 protected:
  std::string Image() const { return directory_ / "image.gz"; }
  std::string Target() const { return directory_ / "target"; }

  support::TempDir directory_;
};

struct Series {
  std::size_t size;
  int processors;
};

void PrintTo(const Series& series, std::ostream* stream) {
  *stream << series.size << " bytes on " << series.processors << " processors";
}

/** An image of one size on so many processors. */
class EverySizeSlowTest : public ImageCheckerSlowTest,
                          public testing::WithParamInterface<Series> {};

TEST_P(EverySizeSlowTest, ACorrectImageAlwaysPassesWhateverTheSpeeds) {
  const auto [size, count] = GetParam();
  const Processors processors(count);
  if (!processors.Available()) {
    GTEST_SKIP() << "this machine has not got " << count << " processors";
  }
  const std::string content = RandomBytes(size, static_cast<unsigned>(size));
  support::WriteGzip(Image(), content);
  support::WriteFile(Target(), content);

  int falseFailures = 0;
  for (int run = 0; run < KRuns; ++run) {
    CInputProcess* decompressor = nullptr;
    switch (run % 4) {
      case 0:
        decompressor = new CInputProcess;
        break;
      case 1:
        decompressor = new PatientInputProcess;
        break;
      default:
        decompressor = new MoodyInputProcess(static_cast<unsigned>(run));
    }
    ImageCheck check(Image(), Target(), size, decompressor);
    falseFailures += check.Run() == "Completed 1" ? 0 : 1;
  }
  EXPECT_EQ(0, falseFailures) << "of " << KRuns;
}

TEST_P(EverySizeSlowTest, AWrongImageOrTargetNeverPasses) {
  const std::size_t size = GetParam().size;
  const int count = GetParam().processors;
  const Processors processors(count);
  if (!processors.Available()) {
    GTEST_SKIP() << "this machine has not got " << count << " processors";
  }
  const std::string content = RandomBytes(size, static_cast<unsigned>(size));
  support::WriteGzip(Image(), content);
  const std::string archive = support::ReadFile(Image());
  std::minstd_rand random(static_cast<unsigned>(size));

  const auto flipped = [&](std::string bytes, std::size_t position) {
    bytes[position] = static_cast<char>(bytes[position] ^ (1 << random() % 8));
    return bytes;
  };
  const auto passes = [&](int run) {
    CInputProcess* decompressor = run % 2 == 0 ? new CInputProcess : new PatientInputProcess;
    ImageCheck check(Image(), Target(), size, decompressor);
    return check.Run() == "Completed 1" ? 1 : 0;
  };

  int falseSuccesses = 0;
  for (int run = 0; run < 10; ++run) {
    support::WriteFile(Image(), archive);
    for (const std::size_t wrong : {std::size_t{0}, size - 1, random() % size}) {
      support::WriteFile(Target(), flipped(content, wrong));
      falseSuccesses += passes(run);
    }
    support::WriteFile(Target(), content.substr(0, run < 5 ? size - 1 : random() % size));
    falseSuccesses += passes(run);

    support::WriteFile(Target(), content);
    support::WriteFile(Image(), archive.substr(0, archive.length() / 2));
    falseSuccesses += passes(run);
    if (size > 4000) {
      // Random data is stored as it is, so a flipped bit in the middle is one of the content.
      support::WriteFile(Image(), flipped(archive, archive.length() / 2));
      falseSuccesses += passes(run);
    }
  }
  EXPECT_EQ(0, falseSuccesses);
}

std::vector<Series> AllSeries() {
  std::vector<Series> all;
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097}, std::size_t{5000},
        2 * KMiB, 3 * KMiB, 2 * KMiB + 5000}) {
    all.push_back({size, 1});
    all.push_back({size, 2});
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Sizes, EverySizeSlowTest, testing::ValuesIn(AllSeries()),
                         [](const auto& test) {
                           return std::to_string(test.param.size) + "BytesOn" +
                                  std::to_string(test.param.processors);
                         });

TEST_F(ImageCheckerSlowTest, ALargeImagePassesAtEverySpeed) {
  const std::size_t size = 300 * KMiB;
  const std::string block = RandomBytes(16 * 1024);
  std::string content;
  for (std::size_t number = 0; content.length() < size; ++number) {
    content += block;
    content.replace(content.length() - sizeof number, sizeof number,
                    reinterpret_cast<const char*>(&number), sizeof number);
  }
  support::WriteFile(Target(), content);
  support::Shell("gzip -1 -c '" + Target() + "' > '" + Image() + "'");

  for (const int count : {1, 2}) {
    const Processors processors(count);
    for (CInputProcess* decompressor :
         {new CInputProcess, static_cast<CInputProcess*>(new PatientInputProcess)}) {
      ImageCheck check(Image(), Target(), size, decompressor);
      EXPECT_EQ("Completed 1", check.Run()) << count << " processors";
    }
  }

  const std::size_t wrong = size - 1;
  content[wrong] = static_cast<char>(content[wrong] ^ 1);
  support::WriteFile(Target(), content);
  ImageCheck check(Image(), Target(), size);
  EXPECT_EQ("Completed 0", check.Run());
}

TEST_F(ImageCheckerSlowTest, SizesAbove4GiBAreCompared) {
  const std::string problem = support::EnterPrivateMounts();
  if (!problem.empty()) {
    GTEST_SKIP() << problem;
  }
  // A target without content and zeros from a decompressor cost next to nothing on the disk.
  const unsigned long long size = 4096ULL * KMiB + 5000;
  const support::CoveredTool zcat("/bin/zcat",
                                  "exec head -c " + std::to_string(size) + " /dev/zero");
  support::WriteFile(Target(), "");
  ASSERT_EQ(0, truncate(Target().c_str(), static_cast<off_t>(size)));
  {
    ImageCheck check("/zeros", Target(), size);
    EXPECT_EQ("Completed 1", check.Run());
    EXPECT_EQ("Progress 5000/5000",
              check.Callback().Reports()[check.Callback().Reports().size() - 2])
        << "the words are cut to 32 bits";
  }

  support::Shell("printf x | dd of='" + Target() +
                 "' bs=1 seek=4294967300 conv=notrunc status=none");
  ImageCheck check("/zeros", Target(), size);
  EXPECT_EQ("Completed 0", check.Run());
  EXPECT_TRUE(
      support::RecordedLog::Instance().HasText("Comparison failure between 4294967296 and "
                                               "4294971392"));
}

}  // namespace

// The dd wrapper with a dd that answers what the input says, in whatever pieces, and children that
// end whenever the input says.

#include <fuzzer/FuzzedDataProvider.h>

#include "SWLInfra/src/DDWrapper.h"
#include "fuzz/support/FakeSystem.h"

namespace {

constexpr int kMostEvents = 64;

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

/** What dd writes to standard error: what real ones do, whole or in part, or anything. */
std::string Answer(FuzzedDataProvider& input) {
  const char* const texts[] = {
      "7+1 records in\n", "7+0 records out\n", "3584 bytes copied\n", "5", " records", "\n", "+",
      "records"};
  std::string answer;
  for (int pieces = input.ConsumeIntegralInRange<int>(0, 4); pieces > 0; --pieces) {
    answer +=
        input.ConsumeBool() ? input.PickValueInArray(texts) : input.ConsumeRandomLengthString(300);
  }
  return answer;
}

void Start(FuzzedDataProvider& input, IDDWrapper& wrapper) {
  std::string source = input.ConsumeBool() ? "/s" : input.ConsumeRandomLengthString(8);
  std::string target = input.ConsumeBool() ? "/t" : input.ConsumeRandomLengthString(8);
  std::string blockSize = input.ConsumeRandomLengthString(12);
  int descriptor = 0;
  unsigned period = 0;
  const auto result =
      wrapper.Start(Bytes(source), Bytes(target), Bytes(blockSize), descriptor, period);
  fuzz::Require((result == EDDCompleted) == (descriptor != -1 && period != 0), "a start");
}

void Work(FuzzedDataProvider& input, IDDWrapper& wrapper) {
  bool running = true;
  for (int count = 0; count < kMostEvents && input.remaining_bytes() > 0; ++count) {
    const int choice = input.ConsumeIntegralInRange<int>(0, 15);
    if (choice == 15) {
      fuzz::Require(wrapper.Abort() == EDDAborted, "an abort");
      continue;
    }
    if (choice == 14) {
      Start(input, wrapper);
      running = true;
      continue;
    }
    unsigned bytes = 0;
    const auto result =
        wrapper.WaitForCompletion(choice < 7 ? EDDTimerTick : EDDOutputReady, bytes);
    fuzz::Require(result == EDDCompleted || result == EDDRunning || result == EDDFailed, "a step");
    fuzz::Require(running || result != EDDCompleted, "an outcome twice");
    running = running && result != EDDCompleted;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  fuzz::FakeSystem system(input);
  system.answer = [&input] { return Answer(input); };
  {
    CDDWrapper wrapper;
    Start(input, wrapper);
    Work(input, wrapper);
  }
  system.CheckNothingIsLeft();
  return 0;
}

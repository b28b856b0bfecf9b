#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "host/Event.h"
#include "host/EventBroker.h"
#include "host/FeatureModule.h"
#include "host/FeatureProperties.h"
#include "tests/support/VirtualSlot.h"

namespace {

using support::KFirstSlot;
using support::VirtualSlot;

template <typename TRecord>
std::string BytesOf(const TRecord& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST(ContractTest, AResultPayloadIs64BytesOfIdAndAWord) {
  TFeatureResultPayload payload{};
  std::memcpy(payload.iFeatureId, "feature", 7);
  payload.iResult = 0x01020304;

  const std::string bytes = BytesOf(payload);

  const TBool word = 0x01020304;
  ASSERT_EQ(68U, bytes.length());
  EXPECT_EQ("feature" + std::string(57, '\0'), bytes.substr(0, 64));
  EXPECT_EQ(BytesOf(word), bytes.substr(64));
}

TEST(ContractTest, AProgressPayloadIs64BytesOfIdAndAByte) {
  TFeatureProgressPayload payload{};
  std::memcpy(payload.iFeatureId, "feature", 7);
  payload.iPercentage = 0xfe;

  const std::string bytes = BytesOf(payload);

  ASSERT_EQ(65U, bytes.length());
  EXPECT_EQ("feature" + std::string(57, '\0'), bytes.substr(0, 64));
  EXPECT_EQ("\xfe", bytes.substr(64));
}

TEST(ContractTest, AnEventIsTypeCodeSizeAndData) {
  const TEvent event{1, 2, 3, nullptr};
  TUint32 words[3] = {};
  std::memcpy(words, &event, sizeof words);

  EXPECT_EQ(1U, words[0]);
  EXPECT_EQ(2U, words[1]);
  EXPECT_EQ(3U, words[2]);
  EXPECT_EQ(sizeof(void*) == 4 ? 12U : 16U, offsetof(TEvent, iData));
}

TEST(ContractTest, EventTypesHaveTheirNumbers) {
  EXPECT_EQ(0U, EEventTimer);
  EXPECT_EQ(1U, EEventDescriptor);
  EXPECT_EQ(3U, EEventUser);
}

TEST(ContractTest, UserEventsHaveTheirNumbers) {
  EXPECT_EQ(200U, EUserEventFeatureCreated);
  EXPECT_EQ(201U, EUserEventControllerPrepare);
  EXPECT_EQ(202U, EUserEventPrepareResult);
  EXPECT_EQ(203U, EUserEventControllerInstall);
  EXPECT_EQ(204U, EUserEventInstallResult);
  EXPECT_EQ(205U, EUserEventInstallProgress);
  EXPECT_EQ(206U, EUserEventControllerAbort);
  EXPECT_EQ(207U, EUserEventAbortResult);
}

TEST(ContractTest, OperationsKeepTheirSlots) {
  EXPECT_EQ(KFirstSlot, VirtualSlot(&IEventObserver::OnEvent));
  EXPECT_EQ(KFirstSlot, VirtualSlot(&IEventBroker::Subscribe));
  EXPECT_EQ(KFirstSlot + 1, VirtualSlot(&IEventBroker::Unsubscribe));
  EXPECT_EQ(KFirstSlot + 2, VirtualSlot(&IEventBroker::PostEvent));
  EXPECT_EQ(KFirstSlot, VirtualSlot(&IFeatureProperties::GetProperty));
}

TEST(ContractTest, AModuleIsNothingButItsTable) {
  EXPECT_EQ(sizeof(void*), sizeof(IFeatureModule2));
}

TEST(ContractTest, TruthValuesAreOneAndZero) {
  EXPECT_EQ(1, ETrue);
  EXPECT_EQ(0, EFalse);
  EXPECT_EQ(4U, sizeof(TBool));
}

}  // namespace

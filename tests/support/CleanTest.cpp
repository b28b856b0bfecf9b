#include "tests/support/CleanTest.h"

#include "tests/support/FakeBroker.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SystemCalls.h"

namespace support {

void CleanTest::SetUp() {
  RecordedLog::Instance().Clear();
  HostFakes::Instance().Reset();
  SystemCalls::Instance().Reset();
  AcceptWhatIsLeft();
}

void CleanTest::TearDown() {
  EXPECT_EQ(descriptors_, OpenDescriptors()) << "descriptors before and after";
  EXPECT_EQ(children_, Children()) << "children before and after";
  EXPECT_EQ(subscriptions_, FakeBroker::LiveSubscriptions()) << "subscriptions before and after";
}

void CleanTest::AcceptWhatIsLeft() {
  descriptors_ = OpenDescriptors();
  children_ = Children();
  subscriptions_ = FakeBroker::LiveSubscriptions();
}

}  // namespace support

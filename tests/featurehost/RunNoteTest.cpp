#include <gmock/gmock.h>
#include <unistd.h>

#include "featurehost/src/RunNote.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::Ne;
using testing::SizeIs;

using RunNoteTest = HostTest;

RunNote Sample() {
  UnitStock before;
  before.mounts = {{"12", "/a b"}, {"13", "/\"c\""}};
  before.loopDevices = {"7:0", "7:12"};
  before.folder = true;
  return NewNote("maincpu", "update.toml", {{"/mnt/userfs"}, "/tmp/eol", {"/dev/card"}}, before);
}

TEST_F(RunNoteTest, TextHoldsTheWholeNote) {
  const RunNote note = Sample();
  const auto again = ParseNote(ToText(note));
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(note.id, again->id);
  EXPECT_EQ(note.boot, again->boot);
  EXPECT_EQ(note.processSpace, again->processSpace);
  EXPECT_EQ(note.mountSpace, again->mountSpace);
  ASSERT_THAT(again->processes, SizeIs(1));
  EXPECT_EQ(getpid(), again->processes[0].id);
  EXPECT_EQ(note.processes[0].start, again->processes[0].start);
  EXPECT_EQ("maincpu", again->feature);
  EXPECT_EQ("update.toml", again->configuration);
  EXPECT_EQ(note.scope.mountPoints, again->scope.mountPoints);
  EXPECT_EQ(note.scope.folder, again->scope.folder);
  EXPECT_EQ(note.scope.targets, again->scope.targets);
  EXPECT_EQ(note.before.mounts, again->before.mounts);
  EXPECT_EQ(note.before.loopDevices, again->before.loopDevices);
  EXPECT_TRUE(again->before.folder);
}

TEST_F(RunNoteTest, EveryNoteHasAnIdOfItsOwn) {
  EXPECT_THAT(Sample().id, SizeIs(32));
  EXPECT_NE(Sample().id, Sample().id);
}

TEST_F(RunNoteTest, DamagedTextIsNoNote) {
  const std::string text = ToText(Sample());
  for (std::size_t length = 0; length + 2 < text.size(); ++length) {
    EXPECT_FALSE(ParseNote(text.substr(0, length)).has_value()) << length;
  }
  for (const char* garbage : {"null", "[]", "{}", "7", "\xff\xfe", "{\"id\":\"ab\"}", "[[[[[["}) {
    EXPECT_FALSE(ParseNote(garbage).has_value()) << garbage;
  }
}

TEST_F(RunNoteTest, FieldsOfAnotherTypeOrWithoutSenseMakeNoNote) {
  const auto with = [](const std::string& field, const std::string& value) {
    std::string text = ToText(Sample());
    const auto begin = text.find("\"" + field + "\": ") + field.size() + 4;
    text.replace(begin, text.find_first_of(",[\n", begin) - begin, value + ",\"x\":0");
    return ParseNote(text);
  };
  EXPECT_FALSE(with("id", "3").has_value());
  EXPECT_FALSE(with("id", "\"\"").has_value());
  EXPECT_FALSE(with("id", "\"../../etc\"").has_value());
  EXPECT_FALSE(with("boot", "{}").has_value());
  EXPECT_FALSE(with("folder", "1").has_value());
  EXPECT_FALSE(with("pid", "\"1\"").has_value());
  EXPECT_TRUE(with("feature", "\"other\"").has_value()) << "the replacement itself is sound";
}

TEST_F(RunNoteTest, NoteOfThisProcessIsOfARunningHost) {
  const RunNote note = Sample();
  EXPECT_FALSE(IsOfEarlierBoot(note));
  EXPECT_TRUE(SeesProcessesOf(note));
  EXPECT_TRUE(SeesMountsOf(note));
  EXPECT_EQ(getpid(), RunningProcess(note));
}

TEST_F(RunNoteTest, NumberThatBelongsToAnotherProcessNowIsNoRunningHost) {
  RunNote note = Sample();
  note.processes[0].start -= 1;
  EXPECT_EQ(std::nullopt, RunningProcess(note));
}

TEST_F(RunNoteTest, EitherProcessKeepsTheRunAlive) {
  RunNote note = Sample();
  note.processes.insert(note.processes.begin(), {getpid(), 1});
  EXPECT_EQ(getpid(), RunningProcess(note));
}

TEST_F(RunNoteTest, NoteOfAnEarlierBootSaysNothingAboutProcessesAndMounts) {
  RunNote note = Sample();
  note.boot = "another";
  EXPECT_TRUE(IsOfEarlierBoot(note));
  EXPECT_EQ(std::nullopt, RunningProcess(note));
  EXPECT_FALSE(SeesMountsOf(note));
}

TEST_F(RunNoteTest, NamespacesTellWhatCanBeSeen) {
  RunNote note = Sample();
  note.mountSpace = "another";
  EXPECT_TRUE(SeesProcessesOf(note));
  EXPECT_FALSE(SeesMountsOf(note));
  note.processSpace = "another";
  EXPECT_FALSE(SeesProcessesOf(note));
  EXPECT_EQ(std::nullopt, RunningProcess(note));
}

}  // namespace
}  // namespace featurehost

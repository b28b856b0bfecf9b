#include <gtest/gtest.h>

#include "SWLInfra/src/CommandLine.h"
#include "SWLInfra/src/Text.h"

namespace {

std::string TextOf(const CCommandLine& command) {
  return reinterpret_cast<const char*>(command.Text());
}

TEST(CommandLineTest, PutsItsPiecesOneBehindTheOther) {
  const CCommandLine command("umount -d", " ", Bytes("/a b"));

  EXPECT_TRUE(command.Fits());
  EXPECT_EQ("umount -d /a b", TextOf(command));
  EXPECT_EQ(14U, command.Length());
}

TEST(CommandLineTest, Holds509BytesAndTheTerminator) {
  const std::string path(506, 'p');
  const CCommandLine command("rm ", path.c_str());

  EXPECT_TRUE(command.Fits());
  EXPECT_EQ(509U, command.Length());
  EXPECT_EQ("rm " + path, TextOf(command));
}

TEST(CommandLineTest, HasNoTextAtAllWhenOneByteIsTooMany) {
  const std::string path(507, 'p');
  const CCommandLine command("rm ", path.c_str());

  EXPECT_FALSE(command.Fits());
  EXPECT_EQ(510U, command.Length());
  EXPECT_EQ("", TextOf(command));
}

TEST(CommandLineTest, StaysWithoutTextWhenShortPiecesFollowTheOneThatDidNotFit) {
  const std::string path(600, 'p');
  const CCommandLine command("rm ", path.c_str(), " x");

  EXPECT_FALSE(command.Fits());
  EXPECT_EQ(605U, command.Length());
  EXPECT_EQ("", TextOf(command));
}

TEST(CommandLineTest, OfNoPiecesIsEmptyAndFits) {
  const CCommandLine command;

  EXPECT_TRUE(command.Fits());
  EXPECT_EQ("", TextOf(command));
}

}  // namespace

#include <gmock/gmock.h>

#include "MainCPULoader/src/StringIterator.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Tokens(const std::string& text, char separator = ';') {
  std::vector<std::string> tokens;
  for (stringiterator<char> token(text, separator); !token.AtEnd(); ++token) {
    tokens.push_back(*token);
  }
  return tokens;
}

TEST(StringIteratorTest, WalksOverTheTokensInOrder) {
  EXPECT_THAT(Tokens("userfs;checkrootfs;factorydata"),
              ElementsAre("userfs", "checkrootfs", "factorydata"));
  EXPECT_THAT(Tokens("a"), ElementsAre("a"));
}

TEST(StringIteratorTest, AnEmptyTextHasNoToken) {
  EXPECT_THAT(Tokens(""), IsEmpty());
}

TEST(StringIteratorTest, ATrailingSeparatorAddsNoToken) {
  EXPECT_THAT(Tokens("a;"), ElementsAre("a"));
}

TEST(StringIteratorTest, ALeadingSeparatorGivesAnEmptyToken) {
  EXPECT_THAT(Tokens(";a"), ElementsAre("", "a"));
}

TEST(StringIteratorTest, ADoubledSeparatorGivesAnEmptyToken) {
  EXPECT_THAT(Tokens("a;;b"), ElementsAre("a", "", "b"));
}

TEST(StringIteratorTest, OfSeparatorsAloneTheLastGivesNoToken) {
  EXPECT_THAT(Tokens(";"), ElementsAre(""));
  EXPECT_THAT(Tokens(";;"), ElementsAre("", ""));
  EXPECT_THAT(Tokens("a;;"), ElementsAre("a", ""));
}

TEST(StringIteratorTest, KeepsBlanksAndOtherSeparators) {
  EXPECT_THAT(Tokens(" a ,b; c"), ElementsAre(" a ,b", " c"));
}

TEST(StringIteratorTest, SeparatesAtTheCharacterItWasGiven) {
  EXPECT_THAT(Tokens("a;b,c", ','), ElementsAre("a;b", "c"));
}

TEST(StringIteratorTest, TokensMayHoldAnyByte) {
  const std::string text("a\0b;\xff", 5);
  EXPECT_THAT(Tokens(text), ElementsAre(std::string("a\0b", 3), "\xff"));
}

TEST(StringIteratorTest, ReadingATokenDoesNotMoveOn) {
  stringiterator<char> token("a;b", ';');
  EXPECT_EQ("a", *token);
  EXPECT_EQ("a", *token);
  ++token;
  EXPECT_EQ("b", *token);
}

TEST(StringIteratorTest, StaysAtTheEndOnceItIsThere) {
  stringiterator<char> token("a;b", ';');
  ++token;
  ++token;
  EXPECT_TRUE(token.AtEnd());
  ++token;
  EXPECT_TRUE(token.AtEnd());
}

TEST(StringIteratorTest, HasACopyOfTheText) {
  std::string text = "a;b";
  stringiterator<char> token(text, ';');
  text = "x;y";
  EXPECT_EQ("a", *token);
}

}  // namespace

#pragma once

#include <string>
#include <utility>

/**
 * Walks over the tokens of a separated list.
 *
 * An empty text has no token and a trailing separator adds none; a leading or doubled separator
 * gives an empty token. Blanks are kept.
 */
template <typename TCharacter>
class stringiterator {
 public:
  using TText = std::basic_string<TCharacter>;

  stringiterator(TText text, TCharacter separator)
      : iText(std::move(text)), iSeparator(separator), iEnd(FindEnd()) {}

  /** The current token. Not to be called at the end. */
  TText operator*() const { return iText.substr(iStart, iEnd - iStart); }

  /** Move to the next token. */
  stringiterator& operator++() {
    if (iEnd == iText.length()) {
      iStart = iEnd;
    } else {
      iStart = iEnd + 1;
      iEnd = FindEnd();
    }
    return *this;
  }

  /** Whether all tokens have been passed. */
  bool AtEnd() const { return iStart == iText.length(); }

 private:
  typename TText::size_type FindEnd() const {
    const auto position = iText.find(iSeparator, iStart);
    return position == TText::npos ? iText.length() : position;
  }

  TText iText;
  TCharacter iSeparator;
  typename TText::size_type iStart = 0;
  typename TText::size_type iEnd;
};

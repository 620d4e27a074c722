// Text helpers: what is escaped comes back, and a second pass changes nothing where the rules make
// it so. Where they do not, a test shows how.

#include "property_test_support.h"

#include <Korvo/KoStrUtils.h>

namespace {

using namespace Korvo;

rc::Gen<std::string> textOf(const std::string& letters) {
  return rc::gen::container<std::string>(rc::gen::elementOf(letters));
}

RC_GTEST_PROP(Text, EscapedTextComesBack, (std::string anyText)) {
  const std::string letters = *textOf("ab\"\\\n\t' \x80");
  for (const std::string& text : {anyText, letters}) {
    RC_ASSERT(deescapeString(Korvo::escapeString(text)) == text);
    RC_ASSERT(Korvo::escapeString(text).find('\n') == std::string::npos);
  }
}

RC_GTEST_PROP(Text, CanonicalTextWithoutSlashesIsStable, ()) {
  const std::string text = *textOf("ab*\"'\\  \n\x80");
  std::string once;
  try {
    once = KoStrUtils::canonicalize(text);
  } catch (const std::exception&) {
    RC_DISCARD("a quote that does not end");
  }
  RC_ASSERT(KoStrUtils::canonicalize(once) == once);
}

TEST(Text, ACommentRemovedMayLeaveACommentBehind) {
  // Comments leave nothing, not even a blank, so what stood around one may become another.
  const std::string once = KoStrUtils::canonicalize("a //**/* b */ c");
  EXPECT_EQ(once, "a /* b */ c");
  EXPECT_EQ(KoStrUtils::canonicalize(once), "a c");
}

RC_GTEST_PROP(Text, CleanUpsAreStable, ()) {
  const std::string text = *textOf("a  \t\n\"\\\x80");
  RC_ASSERT(KoStrUtils::trim(KoStrUtils::trim(text)) == KoStrUtils::trim(text));
  const std::string reduced = KoStrUtils::replaceMultiBlanks(text);
  RC_ASSERT(KoStrUtils::replaceMultiBlanks(reduced) == reduced);
  const std::string plain = KoStrUtils::replaceCtrl(text);
  RC_ASSERT(KoStrUtils::replaceCtrl(plain) == plain);
  std::string path = text;
  KoStrUtils::addTrailingSlash(path);
  const std::string once = path;
  KoStrUtils::addTrailingSlash(path);
  RC_ASSERT(path == once);
}

RC_GTEST_PROP(Text, PiecesComeBackFromTheirJoin, ()) {
  auto pieces = *rc::gen::container<std::vector<std::string>>(textOf("ab \"\\"));
  // An empty piece at the end is none. A function, since RC_PRE looks at both sides of an "and".
  const auto endsInAPiece = [&] { return !pieces.empty() && !pieces.back().empty(); };
  RC_PRE(endsInAPiece());
  std::string joined;
  for (const std::string& piece : pieces) joined += piece + ':';
  joined.pop_back();
  std::vector<std::string> all;
  RC_ASSERT(KoStrUtils::split(joined, ':', all) == pieces);

  std::erase(pieces, "");
  std::vector<std::string> some;
  RC_ASSERT(splitString(joined, ':', some) == static_cast<int>(pieces.size()));
  RC_ASSERT(some == pieces);
}

RC_GTEST_PROP(Text, ExpandedAddressesAreStable, ()) {
  const std::string text = *textOf("1f:::.");
  RC_PRE(text.find(":::") == std::string::npos);
  std::string once;
  try {
    once = expandV6Addr(text);
  } catch (const KoInvalidArgument&) {
    RC_DISCARD("two gaps");
  }
  RC_ASSERT(expandV6Addr(once) == once);
}

TEST(Text, ThreeColonsExpandToAGap) {
  // They count as one "::" and a colon, which then stands behind the last colon written.
  EXPECT_EQ(expandV6Addr("1:::2"), "1:0:0:0:0:0::2");
  EXPECT_EQ(expandV6Addr("1:0:0:0:0:0::2"), "1:0:0:0:0:0:0:2");
}

RC_GTEST_PROP(Text, DigestsAreTheSameForTheSameText, (std::string text)) {
  const std::string copy = text;
  const std::string digest = KoStrUtils::sha1(text);
  RC_ASSERT(digest == KoStrUtils::sha1(copy));
  RC_ASSERT(digest.size() == 40U);
  RC_ASSERT(digest.find_first_not_of("0123456789abcdef") == std::string::npos);
}

}  // namespace

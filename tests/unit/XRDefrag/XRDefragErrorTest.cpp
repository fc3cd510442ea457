#include "XRDefragError.hpp"

#include <gtest/gtest.h>

namespace {

/// Translates for the length of a test.
class Translation {
 public:
  explicit Translation(LWStringTable::Map strings) {
    LWStringTable::sharedTable().setStrings(std::move(strings));
  }
  ~Translation() { LWStringTable::sharedTable().setStrings({}); }
};

Result<int> half(int number) {
  if (number % 2 != 0) {
    return std::unexpected(XRDefragError::withFormat("%d is odd", number));
  }
  return number / 2;
}

Result<int> quarter(int number) {
  const int first = TRY(half(number));
  return TRY(half(first));
}

}  // namespace

TEST(XRDefragError, TheFormatIsFilledIn) {
  const auto error = XRDefragError::localized("%1$@ at %2$u", "disk", 7U);
  EXPECT_EQ(error.description(), "disk at 7");
  EXPECT_FALSE(error.isUserCancelled());
}

TEST(XRDefragError, ACancellationSaysSo) {
  const auto error = XRDefragError::userCancelled();
  EXPECT_EQ(error.description(), "User cancelled.");
  EXPECT_TRUE(error.isUserCancelled());
}

TEST(XRDefragError, FormatsAreLookedUpWhereTheyShould) {
  const Translation translation({{"%1$@ at %2$u", "%2$u: %1$@"},
                                 {"User cancelled.", "Abgebrochen."},
                                 {"Internal error: %1$s:%2$u", "Intern: %2$u in %1$s"}});
  EXPECT_EQ(XRDefragError::localized("%1$@ at %2$u", "disk", 7U).description(), "7: disk");
  EXPECT_EQ(XRDefragError::withFormat("%1$@ at %2$u", "disk", 7U).description(), "disk at 7");
  EXPECT_EQ(XRDefragError::userCancelled().description(), "User cancelled.");
  EXPECT_EQ(XRDefragError::internal("HFSPlus/HFSPlusBTreeNode", 3).description(),
            "Intern: 3 in HFSPlus/HFSPlusBTreeNode");
  EXPECT_EQ(XRDefragError::localized("untranslated").description(), "untranslated");
}

TEST(XRDefragError, AHostileTranslationReadsNothingThatIsNotThere) {
  const Translation translation(
      LWStringTable::Map{{"%1$@ at %2$u", "%2$s%1$n%9$s%1$d%s%s%s%s%s%*.*f%"}});
  EXPECT_EQ(XRDefragError::localized("%1$@ at %2$u", "disk", 7U).description(), "7%1$ndiskdisk7%");
}

TEST(XRDefragError, AnErrorPassesThroughTheCallers) {
  EXPECT_EQ(quarter(8), 2);
  EXPECT_EQ(quarter(3).error().description(), "3 is odd");
  EXPECT_EQ(quarter(6).error().description(), "3 is odd");
}

TEST(XRDefragError, AnInternalErrorNamesItsPlace) {
  const std::string text = XRDefragError::internalHere().description();
  EXPECT_TRUE(text.starts_with("Internal error: ")) << text;
  EXPECT_TRUE(text.ends_with("XRDefragErrorTest:" + std::to_string(__LINE__ - 2))) << text;
}

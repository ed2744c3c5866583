#include "util/error.h"

#include <gtest/gtest.h>

namespace {

// A handler appends context to the object it caught and rethrows it; copies
// keep the context.
TEST(ExceptionTest, TextIsMessageAndAddedContext) {
  EXPECT_EQ(util::EFatal("boom").text(), "boom");
  try {
    try {
      throw util::ESystemError("Unexpected end");
    } catch (util::Exception& e) {
      e.detail += ": parsing .! > .";
      throw;
    }
  } catch (util::ESystemError& e) {
    const util::ESystemError copy(e);
    EXPECT_EQ(copy.text(), "Unexpected end: parsing .! > .");
    EXPECT_EQ(copy.message(), "Unexpected end");
  }
}

TEST(ErrorTextTest, SystemTexts) {
  EXPECT_EQ(util::system_error_text(2), "No such file or directory");
  errno = 13;
  EXPECT_EQ(util::last_error_text(), "Permission denied");
}

class Base {
 public:
  virtual ~Base() = default;
};
class Derived : public Base {};
class Other : public Base {};

TEST(CheckedCastDeathTest, WrongTypeOrNullNamesBothTypes) {
  Derived d;
  Other o;
  Base* b = &d;
  EXPECT_EQ(util::checked_cast<Derived>(b), &d);
  b = &o;
  EXPECT_DEATH(util::checked_cast<Derived>(b),
               "^Assertion failed: checked_cast failed, \\(anonymous namespace\\)::Other should "
               "have been \\(anonymous namespace\\)::Derived\\*\n");
  b = nullptr;
  EXPECT_DEATH(util::checked_cast<Derived>(b), "\\(null\\) should have been ");
}

TEST(AssertFailedDeathTest, PrintsOneLineAndAbortsWithoutUnwinding) {
  EXPECT_DEATH(
      {
        try {
          util::assert_failed("Bad reallocation in BigNum");
        } catch (...) {
          fprintf(stderr, "handler ran\n");
        }
      },
      "^Assertion failed: Bad reallocation in BigNum\n$");
}

}  // namespace

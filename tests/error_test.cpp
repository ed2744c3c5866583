#include "util/error.h"

#include <gtest/gtest.h>

namespace {

// Context added by a handler follows the message; copies keep it.
TEST(ExceptionTest, TextIsMessageAndAddedContext) {
  util::ESystemError caught("Unexpected end");
  caught.detail += ": parsing .! > .";
  const util::ESystemError copy(caught);
  EXPECT_EQ(copy.text(), "Unexpected end: parsing .! > .");
  EXPECT_EQ(copy.message(), "Unexpected end");
  EXPECT_EQ(util::system_error_text(13), "Permission denied");
}

class Base {
 public:
  virtual ~Base() = default;
};
class Derived : public Base {};
class Other : public Base {};

// An assertion prints one line and aborts without unwinding to a handler.
TEST(AssertDeathTest, CheckedCastNamesBothTypes) {
  Derived d;
  Other o;
  Base* b = &d;
  EXPECT_EQ(util::checked_cast<Derived>(b), &d);
  b = &o;
  EXPECT_DEATH(
      try { util::checked_cast<Derived>(b); } catch (...) { fprintf(stderr, "handler ran\n"); },
      "^Assertion failed: checked_cast failed, \\(anonymous namespace\\)::Other should "
      "have been \\(anonymous namespace\\)::Derived\\*\n$");
  b = nullptr;
  EXPECT_DEATH(util::checked_cast<Derived>(b), "\\(null\\) should have been ");
}

}  // namespace

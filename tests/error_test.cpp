#include "util/error.h"

#include <gtest/gtest.h>

namespace {

TEST(ExceptionTest, TextIsMessageWhenNoContextWasAdded) {
  error::EFatal e("boom");
  EXPECT_EQ(e.message(), "boom");
  EXPECT_EQ(e.text(), "boom");
}

TEST(ExceptionTest, HandlerAppendsContextAndRethrowsSameObject) {
  try {
    try {
      throw error::EParseError("Unexpected end");
    } catch (error::Exception& e) {
      e.detail += ": parsing .! > .";
      throw;
    }
  } catch (error::EParseError& e) {
    EXPECT_EQ(e.text(), "Unexpected end: parsing .! > .");
    EXPECT_EQ(e.message(), "Unexpected end");
  }
}

TEST(ExceptionTest, CopyKeepsDetail) {
  error::ESystemError e("x");
  e.detail = " y";
  error::ESystemError copy(e);
  EXPECT_EQ(copy.text(), "x y");
}

TEST(TqlErrorTest, EmptyMessageFallsBackToServerText) {
  EXPECT_EQ(errors::tql("", 9).message(), "Property updated with illegal type");
  EXPECT_EQ(errors::tql("mine", 9).message(), "mine");
  EXPECT_EQ(errors::tql("", 13).message(), "Unknown error");
  EXPECT_EQ(errors::tql("", -1).message(), "Unknown error");
}

struct ServerTextCase {
  uint32_t code;
  const char* text;
};

class ServerErrorTextTest : public testing::TestWithParam<ServerTextCase> {};

TEST_P(ServerErrorTextTest, MatchesTable) {
  EXPECT_EQ(server_error_text(GetParam().code), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ServerErrorTextTest,
    testing::Values(ServerTextCase{0, "No error"},
                    ServerTextCase{1, "Specified ID not found in database"},
                    ServerTextCase{2, "Pattern matched nothing"},
                    ServerTextCase{4, "Attempted insertion of duplicate value in unique property"},
                    ServerTextCase{7, "Requested update of noexistant property"},
                    ServerTextCase{12, "The pattern is not implemented"},
                    ServerTextCase{13, "Unknown error"}, ServerTextCase{14, "Backend error"},
                    ServerTextCase{15, "Access denied"}, ServerTextCase{16, "Unknown error"},
                    ServerTextCase{0xFFFFFFFFu, "Unknown error"}));

TEST(SystemErrorTextTest, KnownCodeHasSystemTextWithoutLineBreaks) {
  std::string text = system_error_text(2);  // ENOENT
  EXPECT_EQ(text, "No such file or directory");
}

TEST(SystemErrorTextTest, LastErrorTextUsesErrno) {
  errno = 13;  // EACCES
  EXPECT_EQ(last_error_text(), "Permission denied");
}

class Base {
 public:
  virtual ~Base() = default;
};
class Derived : public Base {};
class Other : public Base {};

TEST(CheckedCastTest, SucceedsForRightType) {
  Derived d;
  Base* b = &d;
  EXPECT_EQ(checked_cast<Derived>(b), &d);
}

TEST(CheckedCastDeathTest, WrongTypeNamesBothTypes) {
  Other o;
  Base* b = &o;
  EXPECT_DEATH(checked_cast<Derived>(b),
               "^Assertion failed: checked_cast failed, \\(anonymous namespace\\)::Other should "
               "have been \\(anonymous namespace\\)::Derived\\*\n");
}

TEST(CheckedCastDeathTest, NullPointer) {
  Base* b = nullptr;
  EXPECT_DEATH(checked_cast<Derived>(b), "\\(null\\) should have been ");
}

TEST(AssertFailedDeathTest, PrintsOneLineAndAbortsWithoutUnwinding) {
  EXPECT_DEATH(
      {
        try {
          assert_failed("Bad reallocation in BigNum");
        } catch (...) {
          fprintf(stderr, "handler ran\n");
        }
      },
      "^Assertion failed: Bad reallocation in BigNum\n$");
}

}  // namespace

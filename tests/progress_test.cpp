#include "porter/progress.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "support/run_export.h"
#include "support/server_harness.h"

namespace {

using namespace std::chrono_literals;
using porter::ProgressDisplay;

// The marks written without the display are pinned through the whole tool in
// e2e_test.
class ProgressDisplayTest : public testing::Test {
 protected:
  ProgressDisplay::ClockFunction clock() {
    return [this] { return now_; };
  }
  ProgressDisplay::Clock::time_point now_{};
  std::ostringstream out_;
};

TEST_F(ProgressDisplayTest, TerminalRedrawsOneLineInPlaceAtMostEveryInterval) {
  ProgressDisplay display(out_, true, clock());
  display.domain_started("Root");
  display.request_answered();
  display.request_answered();
  display.request_answered();
  display.bytes_written(2048);
  EXPECT_EQ(out_.str(), "") << "nothing is drawn before the first interval";

  now_ += 250ms;
  display.object_started();
  const std::string first = "\n2 objects, 0 history series, 12.0 requests/s, 2.0 KiB written, 0:00:00";
  EXPECT_EQ(out_.str(), first);

  now_ += 100ms;
  display.object_started();
  display.bytes_written(1);
  EXPECT_EQ(out_.str(), first) << "redrawn again within the interval";

  now_ += 150ms;
  display.history_started("n1");
  // The rate is that since the last line; the shorter line is padded over
  // the longer one.
  const std::string second = "\r3 objects, 1 history series, 0.0 requests/s, 2.0 KiB written, 0:00:00 ";
  EXPECT_EQ(out_.str(), first + second);

  now_ = ProgressDisplay::Clock::time_point{} + 65s;
  display.finish();
  const std::string all = first + second + "\rTotal: 3 objects, 1 history series, 3 requests (0.0/s), 2.0 KiB written in 0:01:05\n";
  EXPECT_EQ(out_.str(), all);
  now_ += 10s;
  display.object_started();
  display.finish();
  EXPECT_EQ(out_.str(), all) << "nothing is drawn after the totals";
}

TEST_F(ProgressDisplayTest, PlainOutputWritesWholeLinesEveryFewSeconds) {
  ProgressDisplay display(out_, false, clock());
  for (int i = 0; i < 49; ++i) {
    now_ += 100ms;
    display.request_answered();
    display.object_started();
  }
  EXPECT_EQ(out_.str(), "") << "no line within the first interval";

  now_ += 100ms;  // 5 s
  display.request_answered();
  const std::string first = "\n49 objects, 0 history series, 10.0 requests/s, 0 B written, 0:00:05\n";
  EXPECT_EQ(out_.str(), first);

  display.bytes_written(5 * 1024 * 1024 + 512 * 1024);
  now_ += 5s;  // 10 s
  display.history_started("x");
  const std::string second = "49 objects, 1 history series, 0.0 requests/s, 5.5 MiB written, 0:00:10\n";
  EXPECT_EQ(out_.str(), first + second);

  now_ += 2s;
  display.finish();
  EXPECT_EQ(out_.str(), first + second + "Total: 49 objects, 1 history series, 50 requests (4.2/s), 5.5 MiB written in 0:00:12\n");
}

// Notices and report lines begin a line of their own after a redrawn line
// and after a notice that left its line open, not after one that ended it;
// so does the line drawn next. An unfinished display ends its line for the
// messages after it.
TEST_F(ProgressDisplayTest, NoticesGetALineOfTheirOwnAndAnUnfinishedDisplayEndsItsLine) {
  {
    ProgressDisplay display(out_, true, clock());
    now_ += 1s;
    display.object_started();
    display.notices() << "(ignoring date less than zero)";
    now_ += 1s;
    display.object_started();
    display.notice_line("lost");
    display.notices() << "(open)";
    display.notice_line("lost again");
    display.notice_line("and again");
    now_ += 1s;
    display.object_started();
  }
  EXPECT_EQ(out_.str(), "\n1 objects, 0 history series, 0.0 requests/s, 0 B written, 0:00:01"
                        "\n(ignoring date less than zero)"
                        "\n2 objects, 0 history series, 0.0 requests/s, 0 B written, 0:00:02"
                        "\nlost\n(open)\nlost again\nand again\n"
                        "3 objects, 0 history series, 0.0 requests/s, 0 B written, 0:00:03\n");
}

TEST(ProgressFormatTest, BytesAndElapsedTime) {
  const struct {
    uint64_t bytes;
    const char* bytesText;
    long long seconds;
    const char* elapsedText;
  } cases[] = {{1023, "1023 B", 59, "0:00:59"},
               {1024, "1.0 KiB", 60, "0:01:00"},
               {1048575, "1024.0 KiB", 3600, "1:00:00"},
               {3ull << 30, "3.0 GiB", 90061, "25:01:01"},
               {5ull << 50, "5120.0 TiB", -5, "0:00:00"}};
  for (const auto& c : cases) {
    EXPECT_EQ(porter::format_bytes(c.bytes), c.bytesText);
    EXPECT_EQ(porter::format_elapsed(std::chrono::seconds(c.seconds)), c.elapsedText);
  }
}

// Whole exports against the stand-in server, with and without the display.
size_t count(const std::string& text, const std::string& piece) {
  size_t n = 0;
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
  return n;
}

// The marks without the display are held back, in order, until the export
// waits, a notice comes, the interval has passed, or the export ends.
TEST(HeldErrorStreamTest, MarksWaitForAReleaseANoticeTheIntervalOrTheEnd) {
  std::ostringstream err;
  porter::HeldErrorStream::Clock::time_point now{};
  {
    porter::HeldErrorStream held(err, 100ms, [&] { return now; });
    held.marks() << "a" << std::endl << "." << std::flush;
    EXPECT_EQ(err.str(), "");
    held.release();
    EXPECT_EQ(err.str(), "a\n.");
    held.marks() << "b";
    held.messages() << "(notice)";
    EXPECT_EQ(err.str(), "a\n.b(notice)");
    held.marks() << "c";
    now += 99ms;
    held.marks() << 'd';
    EXPECT_EQ(err.str(), "a\n.b(notice)");
    now += 1ms;
    held.marks() << "e";
    EXPECT_EQ(err.str(), "a\n.b(notice)cde");
    held.marks() << "f";
    EXPECT_TRUE(held.lineOpen());
    held.messages() << "(notice)\n";
    EXPECT_FALSE(held.lineOpen());
  }
  EXPECT_EQ(err.str(), "a\n.b(notice)cdef(notice)\n");
}

// A whole export with the display in place of the marks: the same document,
// and totals that count what was written. The marks do not depend on the
// terminal.
TEST(ProgressExportTest, TheDisplayReplacesTheMarksAndLeavesTheDocumentAlone) {
  support::TestServer server(support::exportable_database());
  const support::Outcome marks = support::run_exporter(server.port(), {});
  ASSERT_EQ(marks.exitCode, 0) << marks.errors;
  EXPECT_EQ(support::run_exporter(server.port(), {}, support::kSequential, true).errors, marks.errors);
  const support::Outcome live = support::run_exporter(server.port(), {"-oprogress=1"});
  ASSERT_EQ(live.exitCode, 0) << live.errors;
  EXPECT_EQ(live.document, marks.document);
  EXPECT_EQ(live.errors.find("Exporting"), std::string::npos) << live.errors;

  // The totals: every written object but the history wrappers, every series
  // asked for, and the document's size.
  std::smatch totals;
  ASSERT_TRUE(std::regex_search(
      live.errors, totals,
      std::regex("\nTotal: (\\d+) objects, (\\d+) history series, (\\d+) requests \\([0-9.]+/s\\), "
                 "(.+) written in \\d+:\\d\\d:\\d\\d\n$")))
      << live.errors;
  const size_t objects = count(live.document, "<Object id=") - count(live.document, "type=\"Data\"");
  EXPECT_EQ(totals[1], std::to_string(objects));
  EXPECT_EQ(totals[2], std::to_string(count(marks.errors, "Exporting statistical data")));
  EXPECT_GT(std::stoul(totals[3]), objects);
  EXPECT_EQ(totals[4], porter::format_bytes(live.document.size()));

}

}  // namespace

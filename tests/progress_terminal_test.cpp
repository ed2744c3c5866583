// The live progress display of the real talvix-exporter binary, with its
// error stream on a pseudo-terminal and on a pipe, against the stand-in
// server (talvix-server) on a free loopback port. Every wait is bounded.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "support/e2e_process.h"
#include "support/pty_child.h"

namespace {

const std::string kExporter = TALVIX_EXPORTER_BINARY;
const std::string kServer = TALVIX_SERVER_BINARY;
constexpr int kTimeoutMs = 30000;
const std::chrono::milliseconds kRunLimit{30000};

// The exporter's result on the terminal: what it wrote there and the
// "exit N" its parent reported.
struct TerminalRun {
  std::string tty;
  std::string report;
};

// Runs the exporter with `args`, its error stream on the slave of a fresh
// pseudo-terminal (output post-processing off, so the master reads its
// bytes unchanged), standard input and output on /dev/null.
TerminalRun run_on_terminal(const std::vector<std::string>& args) {
  // argv is built before fork(): the child only makes system calls.
  std::vector<std::string> words{kExporter};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  auto child = testsupport::PtyChild::start(testsupport::plain_terminal_mode(), [&](int reportFd) {
    const int tty = ::open("/dev/tty", O_RDWR);
    const int null = ::open("/dev/null", O_RDWR);
    if (tty < 0 || null < 0) return;
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(tty, STDERR_FILENO);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(reportFd);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return;
    char text[32];
    const int n = std::snprintf(text, sizeof text, "exit %d",
                                WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    if (::write(reportFd, text, static_cast<size_t>(n)) < 0) return;
  });
  TerminalRun run;
  if (child == nullptr) return run;
  // report() reads the terminal until the child is gone.
  std::optional<std::string> report = child->report(kTimeoutMs);
  child->drain(100);
  run.tty = child->output();
  run.report = report.value_or("(timed out)");
  return run;
}

class ProgressTerminalTest : public testing::Test {
 protected:
  // A generated database whose export takes some hundreds of milliseconds:
  // each answer leaves 8 ms after its request (169 requests), so the
  // terminal display is redrawn several times (at most every 200 ms).
  static void SetUpTestSuite() {
    server_ = std::make_unique<e2e::ServerProcess>(
        kServer, std::vector<std::string>{"--generate", "2x3x2x4/2", "--delay-ms", "8"});
  }
  static void TearDownTestSuite() { server_.reset(); }

  std::vector<std::string> args(const std::vector<std::string>& extra) const {
    std::vector<std::string> a{"-s", "127.0.0.1", "-p", std::to_string(server_->port()),
                               "-l", "admin",     "-P", "secret"};
    a.insert(a.end(), extra.begin(), extra.end());
    return a;
  }

  static std::unique_ptr<e2e::ServerProcess> server_;
};
std::unique_ptr<e2e::ServerProcess> ProgressTerminalTest::server_;

const std::regex kLiveLine(
    "\\d+ objects, \\d+ history series, [0-9.]+ requests/s, [0-9.]+ (B|KiB) written, "
    "\\d+:\\d\\d:\\d\\d *");
const std::regex kTotalLine(
    "Total: \\d+ objects, \\d+ history series, \\d+ requests \\([0-9.]+/s\\), [0-9.]+ (B|KiB) "
    "written in \\d+:\\d\\d:\\d\\d");

TEST_F(ProgressTerminalTest, OnATerminalOneLineIsRedrawnInPlaceAndEndsWithTheTotals) {
  const TerminalRun run = run_on_terminal(args({"-o", "progress=1"}));
  ASSERT_EQ(run.report, "exit 0") << run.tty;
  const std::string& tty = run.tty;
  ASSERT_EQ(tty.rfind("\n", 0), 0u) << tty;
  ASSERT_GE(tty.size(), 2u);
  ASSERT_EQ(tty.back(), '\n') << tty;
  EXPECT_EQ(tty.find("Exporting"), std::string::npos) << tty;

  // "\n" live "\r" live ... "\r" "Total: ..." "\n": one line, no other line end.
  const std::string body = tty.substr(1, tty.size() - 2);
  EXPECT_EQ(body.find('\n'), std::string::npos) << tty;
  std::vector<std::string> draws;
  for (size_t from = 0;;) {
    const size_t cr = body.find('\r', from);
    draws.push_back(body.substr(from, cr - from));
    if (cr == std::string::npos) break;
    from = cr + 1;
  }
  ASSERT_GE(draws.size(), 3u) << "at least two live lines before the totals: " << tty;
  for (size_t i = 0; i + 1 < draws.size(); ++i) {
    EXPECT_TRUE(std::regex_match(draws[i], kLiveLine)) << draws[i];
  }
  EXPECT_TRUE(std::regex_match(draws.back(), kTotalLine)) << draws.back();
}

TEST_F(ProgressTerminalTest, OnAPipeTheDisplayWritesPlainLines) {
  const e2e::RunResult run = e2e::run_process(kExporter, args({"-o", "progress=1"}), "", kRunLimit);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.err.find('\r'), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("Exporting"), std::string::npos) << run.err;
  // The export ends well within the 5 s interval: only the totals line.
  ASSERT_EQ(run.err.rfind("\nTotal: ", 0), 0u) << run.err;
  EXPECT_TRUE(std::regex_match(run.err.substr(1, run.err.size() - 2), kTotalLine)) << run.err;
  EXPECT_EQ(run.err.back(), '\n');
  EXPECT_NE(run.out.find("<Object id="), std::string::npos);
}

TEST_F(ProgressTerminalTest, WithoutTheSettingTheTerminalGetsExactlyTheMarks) {
  const TerminalRun tty = run_on_terminal(args({}));
  ASSERT_EQ(tty.report, "exit 0") << tty.tty;
  const e2e::RunResult piped = e2e::run_process(kExporter, args({}), "", kRunLimit);
  ASSERT_EQ(piped.exitCode, 0) << piped.err;
  EXPECT_EQ(tty.tty, piped.err) << "the marks do not depend on the terminal";
  EXPECT_EQ(tty.tty.find('\r'), std::string::npos);
  EXPECT_EQ(tty.tty.find("Total"), std::string::npos);
  // The marks themselves: the walk starts with the export domain and asks
  // for the history of the first check.
  EXPECT_EQ(tty.tty.rfind("\nExporting domain ", 0), 0u) << tty.tty;
  EXPECT_NE(tty.tty.find("\nExporting statistical data (c0.0.0). Please wait."), std::string::npos)
      << tty.tty;
}

}  // namespace

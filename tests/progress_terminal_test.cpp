// The real talvix-exporter binary with its error stream on a pseudo-terminal,
// against the stand-in server (talvix-server) on a free loopback port. The
// display's lines and totals are in progress_test. Every wait is bounded.
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

  auto child = support::PtyChild::start(support::plain_terminal_mode(), [&](int reportFd) {
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
  // report() reads the terminal until the child is gone. A mark typed then
  // is echoed behind everything the exporter wrote: up to it, all is read.
  run.report = child->report(kTimeoutMs).value_or("(timed out)");
  if (!child->type("~") || !child->read_until("~", kTimeoutMs)) return run;
  run.tty = child->output().substr(0, child->output().size() - 1);
  return run;
}

// A generated database whose export takes more than twice the terminal's
// redraw interval (200 ms): each answer leaves 4 ms after its request (169
// requests one after the other), so the display is redrawn at least twice.
// At least two live lines come before the totals, each returned over; no
// other line end and no marks. The marks on a terminal are in progress_test.
TEST(ProgressTerminalTest, OnATerminalOneLineIsRedrawnInPlaceAndEndsWithTheTotals) {
  support::ServerProcess server(kServer, {"--generate", "2x3x2x4/2", "--delay-ms", "4"});
  const TerminalRun run = run_on_terminal(
      {"-s", "127.0.0.1", "-p", std::to_string(server.port()), "-l", "admin", "-P", "secret", "-o", "progress=1"});
  ASSERT_EQ(run.report, "exit 0") << run.tty;
  const std::string live =
      "\\d+ objects, \\d+ history series, [0-9.]+ requests/s, [0-9.]+ (B|KiB) written, \\d+:\\d\\d:\\d\\d *";
  const std::string total =
      "Total: \\d+ objects, \\d+ history series, \\d+ requests \\([0-9.]+/s\\), [0-9.]+ (B|KiB) "
      "written in \\d+:\\d\\d:\\d\\d";
  EXPECT_TRUE(std::regex_match(run.tty, std::regex("\n(" + live + "\r){2,}" + total + "\n"))) << run.tty;
}

}  // namespace

// The real talvix-exporter binary with its error stream on a pseudo-terminal,
// against the stand-in server (talvix-server) on a free loopback port. The
// display's lines and totals are in progress_test. Every wait is bounded.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/pty_child.h"

namespace {

const std::string kExporter = TALVIX_EXPORTER_BINARY;
const std::string kServer = TALVIX_SERVER_BINARY;
constexpr int kTimeoutMs = 30000;

// What the exporter with `args` wrote on its error stream, the slave of a
// fresh pseudo-terminal (output post-processing off, so the master reads its
// bytes unchanged), with standard input and output on /dev/null; "(timed
// out)" when it did not end in time.
std::string run_on_terminal(const std::vector<std::string>& args) {
  // argv is built before fork(): the child only makes system calls.
  std::vector<std::string> words{kExporter};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  // The exporter keeps the report's writing end open until it ends.
  auto child = support::PtyChild::start(support::plain_terminal_mode(), [&](int) {
    const int tty = ::open("/dev/tty", O_RDWR);
    const int null = ::open("/dev/null", O_RDWR);
    if (tty < 0 || null < 0) return;
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(tty, STDERR_FILENO);
    ::execv(argv[0], argv.data());
  });
  if (child == nullptr) return "(no terminal)";
  if (!child->report(kTimeoutMs).has_value()) return "(timed out)";
  return child->shown(kTimeoutMs);
}

// A generated database whose export takes more than twice the terminal's
// redraw interval (200 ms): each answer leaves 4 ms after its request (169
// requests one after the other), so the display is redrawn at least twice.
// At least two live lines come before the totals, each returned over; no
// other line end and no marks. The marks on a terminal are in progress_test.
TEST(ProgressTerminalTest, OnATerminalOneLineIsRedrawnInPlaceAndEndsWithTheTotals) {
  support::ServerProcess server(kServer, {"--generate", "2x3x2x4/2", "--delay-ms", "4"});
  const std::string tty = run_on_terminal(
      {"-s", "127.0.0.1", "-p", std::to_string(server.port()), "-l", "admin", "-P", "secret", "-o", "progress=1"});
  const std::string live =
      "\\d+ objects, \\d+ history series, [0-9.]+ requests/s, [0-9.]+ (B|KiB) written, \\d+:\\d\\d:\\d\\d *";
  const std::string total =
      "Total: \\d+ objects, \\d+ history series, \\d+ requests \\([0-9.]+/s\\), [0-9.]+ (B|KiB) "
      "written in \\d+:\\d\\d:\\d\\d";
  EXPECT_TRUE(std::regex_match(tty, std::regex("\n(" + live + "\r){2,}" + total + "\n"))) << tty;
}

}  // namespace

// The password prompt on a real (pseudo-)terminal: no echo, line cut,
// over-long lines, end of input, mode restored, no terminal at all.
#include "porter/password.h"

#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/pty_child.h"

namespace porter {
namespace {

using support::PtyChild;

constexpr int kTimeoutMs = 5000;

// Child body: asks `calls` times and reports one line per call, the error
// text or "OK:" and the password.
PtyChild::Body ask(int calls) {
  return [calls](int reportFd) {
    std::string report;
    for (int i = 0; i < calls; ++i) {
      char buffer[kPasswordBufferSize];
      const char* failure = read_console_password(buffer, sizeof buffer, "Password: ");
      report += failure != nullptr ? std::string(failure) : "OK:" + std::string(buffer);
      report += "\n";
    }
    ssize_t ignored = ::write(reportFd, report.data(), report.size());
    (void)ignored;
  };
}

struct PromptCase {
  const char* name;
  bool canonical;                   // line input on before the call
  std::vector<std::string> typing;  // one line after each prompt, one prompt each
  std::string report;
  std::string terminal;  // everything the terminal shows
};


const std::string k63(63, 'p');

const PromptCase kPromptCases[] = {
    // A carriage return ends a line too, a zero byte cuts it; 63 characters
    // fit. Longer lines are rejected and their rest discarded: the next line
    // read is the one typed after them.
    {"Lines", true,
     {"s3cret\r", std::string("ab\0cd\n", 6), "\n", k63 + "\n", k63 + "q\n", std::string(1000, 'r') + "\n",
      "next\n"},
     "OK:s3cret\nOK:ab\nOK:\nOK:" + k63 + "\nPassword too long\nPassword too long\nOK:next\n",
     "Password: \nPassword: \nPassword: \nPassword: \nPassword: \nPassword: \nPassword: \n"},
    {"LineInputSwitchedOn", false, {"abcd\n"}, "OK:abcd\n", "Password: \n"},
    {"EndOfInput", true, {"\x04"}, "read returned 0\n", "Password: "},
    // Ctrl-C ends the child before it reports; echo must be back on.
    {"InterruptEndsWithModeRestored", true, {"\x03"}, "", "Password: "},
};

class PromptTest : public testing::TestWithParam<PromptCase> {};

TEST_P(PromptTest, ReadsOneLineWithoutEcho) {
  const PromptCase& c = GetParam();
  termios initial = support::plain_terminal_mode();
  if (!c.canonical) initial.c_lflag &= ~static_cast<tcflag_t>(ICANON);
  auto child = PtyChild::start(initial, ask(static_cast<int>(c.typing.size())));
  ASSERT_NE(child, nullptr);

  ASSERT_TRUE(child->read_until("Password: ", kTimeoutMs)) << child->output();
  const tcflag_t during = child->mode().c_lflag;
  EXPECT_EQ(during & ECHO, 0u);
  EXPECT_NE(during & ICANON, 0u);
  EXPECT_EQ(during & ~static_cast<tcflag_t>(ECHO | ICANON),
            initial.c_lflag & ~static_cast<tcflag_t>(ECHO | ICANON));

  std::string prompts;  // each prompt after the line end of the one before
  for (const std::string& line : c.typing) {
    prompts += prompts.empty() ? "Password: " : "\nPassword: ";
    ASSERT_TRUE(child->read_until(prompts, kTimeoutMs)) << child->output();
    ASSERT_TRUE(child->type(line));
  }
  EXPECT_EQ(child->report(kTimeoutMs).value_or("(timed out)"), c.report);

  EXPECT_EQ(child->shown(kTimeoutMs), c.terminal);
  const termios after = child->mode();
  EXPECT_EQ(std::tie(after.c_iflag, after.c_oflag, after.c_cflag, after.c_lflag),
            std::tie(initial.c_iflag, initial.c_oflag, initial.c_cflag, initial.c_lflag))
      << "terminal mode not restored";
}

INSTANTIATE_TEST_SUITE_P(Table, PromptTest, testing::ValuesIn(kPromptCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PromptWithoutTerminalTest, FailsToOpenTheInput) {
  auto child = PtyChild::start(support::plain_terminal_mode(), ask(1), /*controllingTerminal=*/false);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->report(kTimeoutMs).value_or("(timed out)"), "Could not open CONIN$\n");
  EXPECT_EQ(child->shown(kTimeoutMs), "");
}

}  // namespace
}  // namespace porter

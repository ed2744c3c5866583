// A child process on a pseudo-terminal, for tests of code that talks to the
// controlling terminal. The test drives the master side; the child runs a
// given body and reports back through a pipe. Every wait is bounded: a child
// that misbehaves is killed, never waited for without end.
#ifndef TALVIX_TESTS_SUPPORT_PTY_CHILD_H_
#define TALVIX_TESTS_SUPPORT_PTY_CHILD_H_

#include <termios.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/process.h"

namespace support {

class PtyChild {
 public:
  // Runs in the child. Writes its report to `reportFd`; returning ends the
  // child with _exit(0).
  using Body = std::function<void(int reportFd)>;

  // Opens a pseudo-terminal whose slave has the mode `mode`, forks, and runs
  // `body` in the child as the leader of a new session. With
  // `controllingTerminal` the slave becomes the child's controlling terminal
  // (so /dev/tty opens it); without, the child has no terminal at all.
  // Returns nullptr when the pseudo-terminal cannot be made; throws
  // std::runtime_error when the child cannot.
  static std::unique_ptr<PtyChild> start(const termios& mode, Body body,
                                         bool controllingTerminal = true);

  // Kills the child if it still runs, reaps it and closes every descriptor.
  ~PtyChild();

  // Reads from the master until output() contains `text` or `timeoutMs`
  // passed. True when the text arrived.
  bool read_until(const std::string& text, int timeoutMs);
  // Everything read from the master so far (what the child wrote to the
  // terminal, plus any echo of typed input).
  const std::string& output() const { return output_; }
  // Types `bytes` on the terminal. False when the master does not take them.
  bool type(const std::string& bytes);
  // Everything the terminal showed, once the child is gone: a mark typed
  // then is echoed (in a mode with echo) behind all the child wrote, so
  // reading up to it reads everything. "(no mark)" is added when the mark
  // does not come within `timeoutMs`.
  std::string shown(int timeoutMs);

  // The current mode of the terminal, read on the slave side (all zero when
  // it cannot be read).
  termios mode() const;

  // Reads the child's report up to the end of the pipe (the child's exit),
  // and reaps the child. What the terminal delivers meanwhile is added to
  // output(). std::nullopt when that takes longer than
  // `timeoutMs`; the child is then killed.
  std::optional<std::string> report(int timeoutMs);

 private:
  PtyChild(int master, int slave) : master_(master), slave_(slave) {}

  int master_;
  int slave_;
  int report_ = -1;
  std::unique_ptr<Child> child_;
  std::string output_;
};

// A terminal mode like a fresh login terminal's, with output post-processing
// off so that the bytes the child writes arrive on the master unchanged.
termios plain_terminal_mode();

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_PTY_CHILD_H_

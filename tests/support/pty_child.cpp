#include "support/pty_child.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;

// Polls `fd` for input until `deadline`; true when it is readable (or hung up).
bool wait_readable(int fd, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd p{fd, POLLIN, 0};
    const int n = ::poll(&p, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
    if (n >= 0 || errno != EINTR) return n > 0;
  }
}

// Appends one read of `fd` to `text`: 1 when something came, 0 at the end
// (or on a failure), -1 when the read is to be tried again.
int read_once(int fd, std::string& text) {
  char chunk[512];
  const ssize_t n = ::read(fd, chunk, sizeof chunk);
  if (n > 0) text.append(chunk, static_cast<size_t>(n));
  return n > 0 ? 1 : (n < 0 && (errno == EAGAIN || errno == EINTR)) ? -1 : 0;
}

// A child's failure before its body, in one write (shorter than a pipe's
// atomic size).
[[noreturn]] void fail_child(int reportFd, const char* text) {
  if (::write(reportFd, text, std::strlen(text)) < 0) ::_exit(3);
  ::_exit(2);
}

}  // namespace

termios plain_terminal_mode() {
  termios mode{};
  mode.c_iflag = ICRNL | IXON;
  mode.c_cflag = CS8 | CREAD | CLOCAL;
  mode.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
  mode.c_cc[VINTR] = 003;
  mode.c_cc[VQUIT] = 034;
  mode.c_cc[VERASE] = 0177;
  mode.c_cc[VKILL] = 025;
  mode.c_cc[VEOF] = 004;
  mode.c_cc[VMIN] = 1;
  cfsetispeed(&mode, B38400);
  cfsetospeed(&mode, B38400);
  return mode;
}

std::unique_ptr<PtyChild> PtyChild::start(const termios& mode, Body body,
                                          bool controllingTerminal) {
  int master = -1, slave = -1, pipeFds[2];
  termios initial = mode;
  if (::openpty(&master, &slave, nullptr, &initial, nullptr) != 0) return nullptr;
  const pid_t pid = ::pipe(pipeFds) == 0 ? ::fork() : -2;
  if (pid < 0) {
    for (int fd : {master, slave}) ::close(fd);
    if (pid == -1) for (int fd : pipeFds) ::close(fd);
    return nullptr;
  }
  if (pid == 0) {
    ::close(master);
    ::close(pipeFds[0]);
    if (::setsid() < 0) fail_child(pipeFds[1], "setsid failed");
    if (controllingTerminal && ::ioctl(slave, TIOCSCTTY, 0) != 0) {
      fail_child(pipeFds[1], "TIOCSCTTY failed");
    }
    if (!controllingTerminal) ::close(slave);
    body(pipeFds[1]);
    ::_exit(0);
  }
  ::close(pipeFds[1]);
  ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
  return std::unique_ptr<PtyChild>(new PtyChild(pid, master, slave, pipeFds[0]));
}

PtyChild::~PtyChild() {
  kill_and_reap();
  for (int fd : {master_, slave_, report_}) ::close(fd);
}

void PtyChild::kill_and_reap() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

bool PtyChild::read_until(const std::string& text, int timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (output_.find(text) == std::string::npos) {
    if (!wait_readable(master_, deadline) || read_once(master_, output_) == 0) return false;
  }
  return true;
}

void PtyChild::drain(int timeoutMs) { read_until(std::string(1, '\0') + "never", timeoutMs); }

bool PtyChild::type(const std::string& bytes) {
  return ::write(master_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

std::optional<termios> PtyChild::mode() const {
  termios mode;
  if (::tcgetattr(slave_, &mode) != 0) return std::nullopt;
  return mode;
}

std::optional<std::string> PtyChild::report(int timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string text;
  int got = -1;
  while (got != 0) {
    // The terminal is read meanwhile, so a child that writes much to it
    // never blocks on a full terminal buffer.
    drain(0);
    if (Clock::now() >= deadline) break;
    if (wait_readable(report_, std::min(deadline, Clock::now() + std::chrono::milliseconds(20)))) {
      got = read_once(report_, text);
    }
  }
  // The pipe closes when the child exits; kill_and_reap() only reaps then.
  kill_and_reap();
  if (got != 0) return std::nullopt;
  return text;
}

}  // namespace testsupport

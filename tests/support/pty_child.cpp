#include "support/pty_child.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace testsupport {

namespace {

long long now_ms() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

// Polls `fd` for input until `deadline`; true when it is readable (or hung up).
bool wait_readable(int fd, long long deadline) {
  for (;;) {
    long long left = deadline - now_ms();
    if (left < 0) left = 0;
    pollfd p{fd, POLLIN, 0};
    const int n = ::poll(&p, 1, static_cast<int>(left));
    if (n >= 0 || errno != EINTR) return n > 0;
  }
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
  mode.c_oflag = 0;
  mode.c_cflag = CS8 | CREAD | CLOCAL;
  mode.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
  mode.c_cc[VINTR] = 003;
  mode.c_cc[VQUIT] = 034;
  mode.c_cc[VERASE] = 0177;
  mode.c_cc[VKILL] = 025;
  mode.c_cc[VEOF] = 004;
  mode.c_cc[VMIN] = 1;
  mode.c_cc[VTIME] = 0;
  cfsetispeed(&mode, B38400);
  cfsetospeed(&mode, B38400);
  return mode;
}

std::unique_ptr<PtyChild> PtyChild::start(const termios& mode, Body body,
                                          bool controllingTerminal) {
  int master = -1, slave = -1;
  termios initial = mode;
  if (::openpty(&master, &slave, nullptr, &initial, nullptr) != 0) return nullptr;
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) {
    ::close(master);
    ::close(slave);
    return nullptr;
  }
  pid_t pid = ::fork();
  if (pid < 0) {
    for (int fd : {master, slave, pipeFds[0], pipeFds[1]}) ::close(fd);
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
  ::close(master_);
  ::close(slave_);
  if (report_ >= 0) ::close(report_);
}

void PtyChild::kill_and_reap() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

namespace {

// Appends what the master delivers until `done` holds or `deadline` passes;
// false when the deadline passed or the master failed first.
template <typename Done>
bool read_master(int master, std::string& output, long long deadline, Done done) {
  while (!done()) {
    if (!wait_readable(master, deadline)) return false;
    char chunk[512];
    ssize_t n = ::read(master, chunk, sizeof chunk);
    if (n > 0) {
      output.append(chunk, static_cast<size_t>(n));
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool PtyChild::read_until(const std::string& text, int timeoutMs) {
  return read_master(master_, output_, now_ms() + timeoutMs,
                     [&] { return output_.find(text) != std::string::npos; });
}

void PtyChild::drain(int timeoutMs) {
  read_master(master_, output_, now_ms() + timeoutMs, [] { return false; });
}

bool PtyChild::type(const std::string& bytes) {
  return ::write(master_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

std::optional<termios> PtyChild::mode() const {
  termios mode;
  if (::tcgetattr(slave_, &mode) != 0) return std::nullopt;
  return mode;
}

std::optional<std::string> PtyChild::report(int timeoutMs) {
  const long long deadline = now_ms() + timeoutMs;
  std::string text;
  for (;;) {
    // The terminal is read meanwhile, so a child that writes much to it
    // never blocks on a full terminal buffer.
    drain(0);
    const long long now = now_ms();
    if (now >= deadline) {
      kill_and_reap();
      return std::nullopt;
    }
    if (!wait_readable(report_, std::min(deadline, now + 20))) continue;
    char chunk[512];
    ssize_t n = ::read(report_, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      kill_and_reap();
      return std::nullopt;
    }
  }
  // The pipe closes when the child exits; kill_and_reap() only reaps then.
  kill_and_reap();
  return text;
}

}  // namespace testsupport

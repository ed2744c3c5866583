#include "support/process.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace support {

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

bool wait_readable(int fd, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int n = ::poll(&p, 1, remaining_ms(deadline));
    if (n >= 0 || errno != EINTR) return n > 0;
  }
}

int read_once(int fd, std::string& text) {
  char chunk[65536];
  const ssize_t n = ::read(fd, chunk, sizeof chunk);
  if (n > 0) text.append(chunk, static_cast<size_t>(n));
  return n > 0 ? 1 : (n < 0 && (errno == EAGAIN || errno == EINTR)) ? -1 : 0;
}

Child::Child(const std::function<void()>& body) {
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    body();
    ::_exit(0);
  }
  pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd_ < 0) {
    stop(SIGKILL);
    throw std::runtime_error("pidfd_open failed");
  }
}

Child::~Child() {
  stop(SIGKILL);
  if (pidfd_ >= 0) ::close(pidfd_);
}

bool Child::wait_until(Clock::time_point deadline) {
  if (pid_ < 0) return true;
  if (pidfd_ >= 0 && !wait_readable(pidfd_, deadline)) return false;
  while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return true;
}

void Child::stop(int sig, std::chrono::milliseconds grace) {
  if (pid_ < 0) return;
  ::kill(pid_, sig);
  if (!wait_until(Clock::now() + grace)) {
    ::kill(pid_, SIGKILL);
    wait_until(Clock::time_point::max());
  }
}

}  // namespace support

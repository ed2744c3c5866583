#include "support/pty_child.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>


namespace support {

termios plain_terminal_mode() {
  termios mode{};
  mode.c_iflag = ICRNL | IXON;
  mode.c_cflag = CS8 | CREAD | CLOCAL;
  mode.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
  mode.c_cc[VINTR] = 003;
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
  std::unique_ptr<PtyChild> pty(new PtyChild(master, slave));
  if (::pipe(pipeFds) != 0) return nullptr;
  pty->report_ = pipeFds[0];
  pty->child_ = std::make_unique<Child>([&] {
    ::close(master);
    ::close(pipeFds[0]);
    // A child that cannot take its terminal ends without a report.
    if (::setsid() < 0 || (controllingTerminal && ::ioctl(slave, TIOCSCTTY, 0) != 0)) ::_exit(2);
    if (!controllingTerminal) ::close(slave);
    body(pipeFds[1]);
  });
  ::close(pipeFds[1]);
  ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
  return pty;
}

PtyChild::~PtyChild() {
  child_.reset();
  for (int fd : {master_, slave_, report_}) ::close(fd);  // -1 (no report pipe) fails harmlessly
}

bool PtyChild::read_until(const std::string& text, int timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (output_.find(text) == std::string::npos) {
    if (!wait_readable(master_, deadline) || read_once(master_, output_) == 0) return false;
  }
  return true;
}

std::string PtyChild::shown(int timeoutMs) {
  if (!type("~") || !read_until("~", timeoutMs)) return output_ + "(no mark)";
  return output_.substr(0, output_.size() - 1);
}

bool PtyChild::type(const std::string& bytes) {
  return ::write(master_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

termios PtyChild::mode() const {
  termios mode{};
  ::tcgetattr(slave_, &mode);
  return mode;
}

std::optional<std::string> PtyChild::report(int timeoutMs) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string text;
  // The terminal is read meanwhile, so a child that writes much to it never
  // blocks on a full terminal buffer.
  pollfd fds[2] = {{report_, POLLIN, 0}, {master_, POLLIN, 0}};
  int got = -1;
  while (got != 0 && ::poll(fds, 2, remaining_ms(deadline)) != 0) {
    if (fds[1].revents & POLLIN) read_once(master_, output_);
    if (fds[0].revents != 0) got = read_once(report_, text);
    // A hung-up terminal (the child's side closed) is not read again.
    if (fds[1].revents & ~POLLIN) fds[1].fd = -1;
  }
  while (read_once(master_, output_) == 1) {
  }
  // The pipe closes when the child exits; the child is only reaped then.
  child_.reset();
  if (got != 0) return std::nullopt;
  return text;
}

}  // namespace support

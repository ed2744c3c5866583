#include "porter/password.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "util/error.h"

namespace porter {

namespace {

// Owns one file descriptor and closes it exactly once.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};

// Writes all of `data`; false when the terminal takes fewer bytes.
bool write_all(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

ssize_t read_retrying(int fd, char* buffer, size_t size) {
  ssize_t n;
  do {
    n = ::read(fd, buffer, size);
  } while (n < 0 && errno == EINTR);
  return n;
}

// Reads and drops what is left of the current input line. In line mode a
// read never goes past the end of a line and the whole line is already
// queued, so this stops at the line end without waiting for more typing.
void discard_rest_of_line(int fd) {
  char scratch[256];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 0) != 1 || (p.revents & POLLIN) == 0) break;
    ssize_t n = read_retrying(fd, scratch, sizeof scratch);
    if (n <= 0) break;
    if (std::memchr(scratch, '\n', static_cast<size_t>(n)) != nullptr ||
        static_cast<size_t>(n) < sizeof scratch) {
      break;
    }
  }
  std::memset(scratch, 0, sizeof scratch);
}

// What a signal that ends the process must undo while echo is off (Ctrl-C at
// the prompt): without it the shell would be left with a terminal that does
// not echo. Set only while an EchoRestorer exists. The one mutable state at
// namespace scope in the tool: a signal handler cannot be handed a context.
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
int restoreFd = -1;
termios restoreMode;
struct sigaction previousActions[std::size(kEndingSignals)];

// Puts the terminal mode back and gives the signal back its previous
// disposition. The signal is blocked while the handler runs, so the one
// raised here is delivered, to that disposition, when the handler returns.
void restore_terminal_and_reraise(int signal) {
  const int savedErrno = errno;
  if (restoreFd >= 0) ::tcsetattr(restoreFd, TCSANOW, &restoreMode);
  for (size_t i = 0; i < std::size(kEndingSignals); ++i) {
    if (kEndingSignals[i] == signal) ::sigaction(signal, &previousActions[i], nullptr);
  }
  ::raise(signal);
  errno = savedErrno;
}

// While it exists, a signal of kEndingSignals restores `mode` on `fd` before
// it takes its course. One prompt at a time, like the terminal itself.
class EchoRestorer {
 public:
  EchoRestorer(int fd, const termios& mode) {
    restoreMode = mode;
    restoreFd = fd;
    struct sigaction action {};
    action.sa_handler = restore_terminal_and_reraise;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < std::size(kEndingSignals); ++i) {
      ::sigaction(kEndingSignals[i], &action, &previousActions[i]);
    }
  }
  ~EchoRestorer() {
    for (size_t i = 0; i < std::size(kEndingSignals); ++i) {
      ::sigaction(kEndingSignals[i], &previousActions[i], nullptr);
    }
    restoreFd = -1;
  }
  EchoRestorer(const EchoRestorer&) = delete;
  EchoRestorer& operator=(const EchoRestorer&) = delete;
};

// Prompt, read, cut and line end, with the terminal already in password
// mode. Returns nullptr or the failure text.
const char* prompt_and_read(int in, int out, char* buffer, size_t size, const char* prompt) {
  if (!write_all(out, prompt, std::strlen(prompt))) return "Could not write";

  ssize_t n = read_retrying(in, buffer, size);
  if (n < 0) return "Could not read";
  if (n == 0) return "read returned 0";

  const char* result = nullptr;
  size_t length = static_cast<size_t>(n);
  size_t end = 0;
  while (end < length && buffer[end] != '\0' && buffer[end] != '\n' && buffer[end] != '\r') ++end;
  if (end < size) {
    buffer[end] = '\0';
  } else {
    // The buffer filled up before the line ended: no room for the zero.
    discard_rest_of_line(in);
    std::memset(buffer, 0, size);
    result = "Password too long";
  }

  if (!write_all(out, "\n", 1)) return "Could not write";
  return result;
}

}  // namespace

const char* read_console_password(char* buffer, size_t size, const char* prompt) {
  Descriptor in(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!in.valid()) return "Could not open CONIN$";
  Descriptor out(::open("/dev/tty", O_WRONLY | O_NOCTTY | O_CLOEXEC));
  if (!out.valid()) return "Could not open CONOUT$";

  termios saved;
  if (::tcgetattr(in.get(), &saved) != 0) return "GetConsoleMode failed";
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ICANON;
  const EchoRestorer restorer(in.get(), saved);
  if (::tcsetattr(in.get(), TCSANOW, &quiet) != 0) return "SetConsoleMode failed";

  const char* result = prompt_and_read(in.get(), out.get(), buffer, size, prompt);

  if (::tcsetattr(in.get(), TCSANOW, &saved) != 0) result = "SetConsoleMode failed";
  return result;
}

namespace {

// `path` opened for reading after the checks of check_private_file().
Descriptor open_private_file(const std::string& path, const std::string& what) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat info {};
  if (!file.valid() || ::fstat(file.get(), &info) != 0) {
    throw util::EFatal("Error reading " + what + " " + path + ": " + util::last_error_text());
  }
  const std::string head = static_cast<char>(std::toupper(static_cast<unsigned char>(what[0]))) +
                           what.substr(1) + " " + path;
  if (!S_ISREG(info.st_mode)) throw util::EFatal(head + " is not a regular file");
  if ((info.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    throw util::EFatal(head + " may be read by others (mode " + mode +
                       "): allow its owner alone, e.g. chmod 600 " + path);
  }
  return file;
}

}  // namespace

void check_private_file(const std::string& path, const std::string& what) {
  open_private_file(path, what);
}

std::string read_password_file(const std::string& path) {
  const Descriptor file = open_private_file(path, "password file");

  // One byte more than the longest line, to tell a line that fits.
  char buffer[kPasswordFileLineLimit + 1];
  size_t length = 0;
  while (length < sizeof buffer) {
    const ssize_t n = read_retrying(file.get(), buffer + length, sizeof buffer - length);
    if (n < 0) {
      const std::string reason = util::last_error_text();
      explicit_bzero(buffer, sizeof buffer);
      throw util::EFatal("Error reading password file " + path + ": " + reason);
    }
    if (n == 0) break;
    const bool lineEnded = std::memchr(buffer + length, '\n', static_cast<size_t>(n)) != nullptr;
    length += static_cast<size_t>(n);
    if (lineEnded) break;
  }
  const char* newline = static_cast<const char*>(std::memchr(buffer, '\n', length));
  size_t end = newline != nullptr ? static_cast<size_t>(newline - buffer) : length;
  if (end > kPasswordFileLineLimit) {
    explicit_bzero(buffer, sizeof buffer);
    throw util::EFatal("Password file " + path + ": its first line is longer than " +
                        std::to_string(kPasswordFileLineLimit) + " bytes");
  }
  if (newline != nullptr && end > 0 && buffer[end - 1] == '\r') --end;
  std::string password(buffer, end);
  explicit_bzero(buffer, sizeof buffer);
  return password;
}

void wipe_password(std::string& text) {
  explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace porter

// Descriptors and child processes for the tests, with every wait bounded:
// the one place the test support forks, polls, kills and reaps.
#ifndef TALVIX_TESTS_SUPPORT_PROCESS_H_
#define TALVIX_TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace support {

using Clock = std::chrono::steady_clock;

// Milliseconds left until `deadline`, 0 when it has passed.
int remaining_ms(Clock::time_point deadline);
// Polls `fd` for input until `deadline`; true when it is readable (or hung up).
bool wait_readable(int fd, Clock::time_point deadline);
// Appends one read of `fd` to `text`: 1 when something came, 0 at the end
// (or on a failure), -1 when the read is to be tried again.
int read_once(int fd, std::string& text);

// A forked child running `body`; when `body` returns the child ends with
// _exit(0). The child is killed and reaped at the latest on destruction.
class Child {
 public:
  explicit Child(const std::function<void()>& body);  // throws std::runtime_error
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until the child ends or `deadline`; true when it ended (and was
  // reaped: status()).
  bool wait_until(Clock::time_point deadline);
  // Sends `sig`; if the child is still there after `grace`, kills it. Reaps.
  void stop(int sig, std::chrono::milliseconds grace = {});
  int status() const { return status_; }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;  // readable once the child has ended
  int status_ = 0;
};

}  // namespace support

#endif  // TALVIX_TESTS_SUPPORT_PROCESS_H_

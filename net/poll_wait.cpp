#include "net/poll_wait.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <climits>

namespace net::detail {

int poll_until(int fd, short events, unsigned seconds, short* revents) {
  *revents = 0;
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    long long left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left < 0) left = 0;
    const int timeout = seconds == 0 ? -1 : left > INT_MAX ? INT_MAX : static_cast<int>(left);
    pollfd entry{fd, events, 0};
    const int result = ::poll(&entry, 1, timeout);
    if (result < 0 && errno == EINTR) continue;
    if (result == 0 && Clock::now() < deadline) continue;
    *revents = entry.revents;
    return result;
  }
}

}  // namespace net::detail

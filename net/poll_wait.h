// Waiting for one descriptor, with or without a limit.
#ifndef TALVIX_NET_POLL_WAIT_H_
#define TALVIX_NET_POLL_WAIT_H_

namespace net::detail {

// Waits for `events` on `fd`, at most `seconds` (0: without a limit), and
// returns poll()'s result (0 when the limit passed, 1 when ready, -1 with
// errno on failure); *revents receives what was reported. A wait interrupted
// by a signal, or one longer than a single poll() can take, goes on with the
// time that is left. A negative fd fails at once with EBADF instead of
// sitting out the wait.
int poll_until(int fd, short events, unsigned seconds, short* revents);

}  // namespace net::detail

#endif  // TALVIX_NET_POLL_WAIT_H_

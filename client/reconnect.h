// Connecting again after a lost connection.
//
// A Reconnector makes the connections of one session. It logs in; when the
// connection is lost later (the session hands it the failure), it waits,
// connects and logs in again as the same user, and lets the session resume
// on the new connection. Only transport failures are retried
// (util::ESystemError: a connection refused, closed or reset, a wait past its
// time limit); a refused negotiation or login (util::EConnectError), a reply
// that fails to decode and every other failure pass out at once.
//
// Tries are counted in a row: `attempts` tries at most without an answered
// request in between (answered() starts the count again). Before try k the
// Reconnector waits firstWait * 2^(k-1) seconds, at most kMaxWait, and
// reports one line naming the failure and the try. When no try is left, the
// failure that began the row passes out, so the run ends as it would have
// without reconnecting.
#ifndef TALVIX_CLIENT_RECONNECT_H_
#define TALVIX_CLIENT_RECONNECT_H_

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "client/login.h"
#include "net/connection.h"

namespace client {

struct ReconnectPolicy {
  using Seconds = std::chrono::duration<double>;
  static constexpr Seconds kMaxWait{60.0};

  // Tries in a row after a failure; 0: the first failure passes out.
  uint32_t attempts = 0;
  // The wait before the first try of a row.
  Seconds firstWait{1.0};
  // Takes each report line (without a line end); may be empty.
  std::function<void(const std::string& line)> report;
  // Waits; empty: std::this_thread::sleep_for.
  std::function<void(Seconds)> sleep;
};

class Reconnector {
 public:
  Reconnector(net::ConnectionFactory factory, Login login, ReconnectPolicy policy);

  // Logs in (log_in()), then runs `resume` on the new connection, e.g. to
  // send again what the old one left unanswered. A transport failure of
  // either is retried as the policy allows. `lost` is the failure that ended
  // the previous connection, null for the first connection; it starts or
  // continues the row of tries.
  LoggedIn connect(std::exception_ptr lost,
                   const std::function<void(protocol::BerReader&)>& resume = {});

  // A request was answered: the next failure starts a new row of tries.
  void answered() { tries_ = 0; }

 private:
  // Counts a try for `failure`, reports it and waits; rethrows the failure
  // that began the row when no try is left. `connected`: the failure ended a
  // connection that had logged in.
  void before_try(std::exception_ptr failure, bool connected);

  const net::ConnectionFactory factory_;
  const Login login_;
  const ReconnectPolicy policy_;
  uint32_t tries_ = 0;
  std::exception_ptr firstFailure_;  // the failure that began the current row
};

}  // namespace client

#endif  // TALVIX_CLIENT_RECONNECT_H_

#include "client/reconnect.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "protocol/ber_reader.h"
#include "util/error.h"

namespace client {

namespace {

std::string failure_text(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const util::Exception& e) {
    return e.text();
  }
}

}  // namespace

Reconnector::Reconnector(net::ConnectionFactory factory, Login login, ReconnectPolicy policy)
    : factory_(std::move(factory)), login_(std::move(login)), policy_(std::move(policy)) {}

LoggedIn Reconnector::connect(std::exception_ptr lost,
                              const std::function<void(protocol::BerReader&)>& resume) {
  if (lost) before_try(lost, true);
  for (;;) {
    try {
      LoggedIn fresh = log_in(factory_, login_);
      if (resume) resume(*fresh.reader);
      return fresh;
    } catch (const util::ESystemError&) {
      before_try(std::current_exception(), false);
    }
  }
}

void Reconnector::before_try(std::exception_ptr failure, bool connected) {
  if (tries_ == 0) firstFailure_ = failure;
  if (tries_ >= policy_.attempts) std::rethrow_exception(firstFailure_);
  ++tries_;
  if (policy_.report) {
    policy_.report(std::string(connected ? "Connection lost (" : "Connection failed (") +
                   failure_text(failure) + "); reconnecting, attempt " + std::to_string(tries_) +
                   " of " + std::to_string(policy_.attempts));
  }
  const ReconnectPolicy::Seconds wait =
      std::min(policy_.firstWait * static_cast<double>(uint64_t{1} << std::min(tries_ - 1, 20u)),
               ReconnectPolicy::kMaxWait);
  if (wait.count() <= 0) return;
  if (policy_.sleep) {
    policy_.sleep(wait);
  } else {
    std::this_thread::sleep_for(wait);
  }
}

}  // namespace client

#include "tests/support/scripted_peer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "client/session.h"
#include "net/connection.h"
#include "support/process.h"
#include "util/error.h"

namespace support {

namespace {

// Thrown inside the peer thread to abandon the script.
struct ScriptAbandoned {};

// A TCP socket listening on 127.0.0.1 at a free port (stored into `port`).
int listening_socket(uint16_t& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 || ::listen(fd, 16) != 0) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("cannot listen on a loopback socket");
  }
  port = ntohs(address.sin_port);
  return fd;
}

Octets berLength(size_t length) {
  if (length < 0x80) return Octets(1, static_cast<char>(length));
  Octets octets;
  for (size_t rest = length; rest != 0; rest >>= 8) octets.insert(0, 1, static_cast<char>(rest));
  return Octets(1, static_cast<char>(0x80 + octets.size())) + octets;
}

Octets berInt(int64_t value) {
  Octets content;
  for (;;) {
    content.insert(0, 1, static_cast<char>(value & 0xFF));
    const int64_t rest = value >> 8;
    // Done when the remaining octets would only repeat the sign bit.
    const bool signBit = (content[0] & 0x80) != 0;
    if ((rest == 0 && !signBit) || (rest == -1 && signBit)) break;
    value = rest;
  }
  return "\x02" + berLength(content.size()) + content;
}

Octets berString(const std::string& text) { return "\x04" + berLength(text.size()) + text; }

Octets berIndefinite(std::string_view identifierHex, const Octets& content) {
  return hex(identifierHex) + hex("80") + content + hex("00 00");
}

}  // namespace

Octets response(int32_t id, const Octets& body) { return berIndefinite("75", berInt(id) + body); }

Octets selectResp(const Octets& objects) {
  return berIndefinite("A0", berIndefinite("30", objects));
}

Octets object(const std::string& className, uint32_t flags, const std::string& id,
             const Octets& properties, const Octets& children) {
  return berIndefinite("30", berString(className) + berInt(flags) + berString(id) +
                                 berString("") + berIndefinite("30", properties) +
                                 berIndefinite("30", children) + hex("31 80 00 00"));
}

Octets stringProperty(const std::string& name, const std::string& value) {
  return berIndefinite("30", berString(name) + hex("02 01 06") +
                                 berIndefinite("A0", berString(value)));
}

Octets nullProperty(const std::string& name, uint32_t type) {
  return berIndefinite("30", berString(name) + berInt(type) + hex("A6 80 00 00"));
}

void PeerLink::abandon(const std::string& complaint) {
  complaints_.push_back(complaint);
  throw ScriptAbandoned();
}

bool PeerLink::fill(bool endAllowed) {
  if (!wait_readable(fd_, deadline_)) abandon("timed out waiting for the client");
  char chunk[4096];
  try {
    pending_.append(chunk, stream_->read(chunk, sizeof chunk));
    return true;
  } catch (const util::Exception& e) {
    if (endAllowed && e.message() == "Error reading: OsalSocket::read end of stream") return false;
    abandon("peer read failed: " + e.text());
  }
}

void PeerLink::expectEnd(const std::string& what) {
  Octets extra;
  do {
    extra += pending_;
    pending_.clear();
  } while (fill(true));
  if (!extra.empty()) complaints_.push_back(what + ": the client sent more: " + to_hex(extra));
}

void PeerLink::expect(const Octets& bytes, const std::string& what) {
  while (pending_.size() < bytes.size()) fill();
  const Octets got = pending_.substr(0, bytes.size());
  pending_.erase(0, bytes.size());
  if (got != bytes) {
    complaints_.push_back(what + ": expected " + to_hex(bytes) + "\n got " + to_hex(got));
  }
}

void PeerLink::send(const Octets& bytes) {
  try {
    stream_->write(bytes.data(), bytes.size());
  } catch (const util::Exception& e) {
    abandon("peer send failed: " + e.text());
  }
}

ScriptedPeer::ScriptedPeer(Script script) : listenFd_(listening_socket(port_)) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  thread_ = std::thread([this, deadline, script = std::move(script)] {
    try {
      const int fd = wait_readable(listenFd_, deadline) ? ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (fd < 0) {
        complaints_.push_back("the client never connected");
        return;
      }
      const int nodelay = 1;  // each scripted send leaves at once
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
      PeerLink link(fd, deadline, complaints_);
      try {
        script(link);
      } catch (const ScriptAbandoned&) {
      }
      link.stream_->close();
    } catch (const util::Exception& e) {
      complaints_.push_back("accept or close failed: " + e.text());
    }
  });
}

ScriptedPeer::~ScriptedPeer() {
  thread_.join();
  ::close(listenFd_);
  for (const std::string& complaint : complaints_) ADD_FAILURE() << "scripted peer: " << complaint;
}

Octets clientWants() { return hex("60 80 02 02 02 03 A0 80 00 00 00 00"); }

Octets testLogin() {
  return hex("70 80 04 03 6C 61 62 04 05 61 64 6D 69 6E 04 08 45 78 70 6F 72 74 65 72 "
             "04 06 73 65 63 72 65 74 00 00");
}

ScriptedPeer::Script loginThen(const Octets& requests, const Octets& answers) {
  return [=](PeerLink& link) {
    link.expect(clientWants(), "ClientWants");
    link.send(hex("61 80 02 02 02 03 A0 80 00 00 00 00"));  // version 0x0203, no authentication
    link.expect(hex("62 80 00 00"), "NegotiateAck");
    link.expect(testLogin(), "NewSession");
    link.send(berIndefinite("71", hex("02 02 10 00 02 01 00") + berString("root") + berString("") +
                                      berString("mib")));
    link.expect(requests, "requests");
    link.send(answers);
    link.expectEnd("after the answers");
  };
}

std::unique_ptr<client::Session> openTestSession(uint16_t port) {
  return client::openSession(net::ConnectionFactory(),
                             client::Login("127.0.0.1", port, "Exporter", "admin", "secret", "lab"));
}

}  // namespace support

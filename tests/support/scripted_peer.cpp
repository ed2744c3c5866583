#include "tests/support/scripted_peer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <utility>

#include "client/session.h"
#include "net/connection.h"
#include "util/error.h"

namespace peer {

namespace {

// Thrown inside the peer thread to abandon the script.
struct ScriptAbandoned {};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Bytes hex(std::string_view text) {
  Bytes bytes;
  int high = -1;
  for (char c : text) {
    if (c == ' ' || c == ',') continue;
    const int digit = hexDigit(c);
    if (digit < 0) {
      ADD_FAILURE() << "not a hex digit in \"" << text << "\"";
      return bytes;
    }
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<char>(high * 16 + digit));
      high = -1;
    }
  }
  if (high >= 0) ADD_FAILURE() << "odd number of hex digits in \"" << text << "\"";
  return bytes;
}

std::string toHex(const Bytes& bytes) {
  std::string text;
  char octet[4];
  for (unsigned char b : bytes) {
    std::snprintf(octet, sizeof octet, "%02X", b);
    if (!text.empty()) text += ' ';
    text += octet;
  }
  return text;
}

Bytes berLength(size_t length) {
  if (length < 0x80) return Bytes(1, static_cast<char>(length));
  Bytes octets;
  for (size_t rest = length; rest != 0; rest >>= 8) {
    octets.insert(octets.begin(), static_cast<char>(rest & 0xFF));
  }
  return Bytes(1, static_cast<char>(0x80 + octets.size())) + octets;
}

Bytes berInt(int64_t value) {
  Bytes content;
  for (;;) {
    content.insert(content.begin(), static_cast<char>(value & 0xFF));
    const int64_t rest = value >> 8;
    // Done when the remaining octets would only repeat the sign bit.
    const bool signBit = (content[0] & 0x80) != 0;
    if ((rest == 0 && !signBit) || (rest == -1 && signBit)) break;
    value = rest;
  }
  return "\x02" + berLength(content.size()) + content;
}

Bytes berMagnitude(uint32_t value) {
  Bytes content;
  for (; value != 0; value >>= 8) content.insert(content.begin(), static_cast<char>(value & 0xFF));
  return "\x02" + berLength(content.size()) + content;
}

Bytes berString(const std::string& text) { return "\x04" + berLength(text.size()) + text; }

Bytes berIndefinite(std::string_view identifierHex, const Bytes& content) {
  return hex(identifierHex) + hex("80") + content + hex("00 00");
}

Bytes response(int32_t id, const Bytes& body) { return berIndefinite("75", berInt(id) + body); }

Bytes selectResp(const Bytes& objects) {
  return berIndefinite("A0", berIndefinite("30", objects));
}

Bytes errorResp(int32_t code, const std::vector<std::string>& texts) {
  Bytes list;
  for (const std::string& text : texts) list += berString(text);
  return berIndefinite("A8", berInt(code) + berIndefinite("30", list));
}

Bytes object(const std::string& className, uint32_t flags, const std::string& id,
             const Bytes& properties, const Bytes& children) {
  return berIndefinite("30", berString(className) + berInt(flags) + berString(id) +
                                 berString("") + berIndefinite("30", properties) +
                                 berIndefinite("30", children) + hex("31 80 00 00"));
}

Bytes stringProperty(const std::string& name, const std::string& value) {
  return berIndefinite("30", berString(name) + hex("02 01 06") +
                                 berIndefinite("A0", berString(value)));
}

Bytes nullProperty(const std::string& name, uint32_t type) {
  return berIndefinite("30", berString(name) + berInt(type) + hex("A6 80 00 00"));
}

PeerLink::PeerLink(std::unique_ptr<old_protocol::SocketStream> stream,
                   std::chrono::steady_clock::time_point deadline,
                   std::vector<std::string>* complaints, std::mutex* mutex)
    : stream_(std::move(stream)), deadline_(deadline), complaints_(complaints), mutex_(mutex) {}

void PeerLink::complain(const std::string& text) {
  std::lock_guard<std::mutex> lock(*mutex_);
  complaints_->push_back(text);
}

bool PeerLink::fill(bool endAllowed) {
  if (!stream_) {
    complain("read after close");
    throw ScriptAbandoned();
  }
  while (!stream_->readable()) {
    if (std::chrono::steady_clock::now() > deadline_) {
      complain("timed out waiting for the client");
      throw ScriptAbandoned();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  char chunk[4096];
  try {
    const uint64_t count = stream_->read(chunk, sizeof chunk);
    pending_.erase(0, cursor_);
    cursor_ = 0;
    pending_.append(chunk, count);
    return true;
  } catch (const error::Exception& e) {
    if (endAllowed && e.message() == "Error reading: OsalSocket::read end of stream") {
      return false;
    }
    complain("peer read failed: " + e.text());
    throw ScriptAbandoned();
  }
}

void PeerLink::expectEnd(const std::string& what) {
  Bytes extra = pending_.substr(cursor_);
  cursor_ = pending_.size();
  while (fill(true)) {
    extra += pending_.substr(cursor_);
    cursor_ = pending_.size();
  }
  if (!extra.empty()) complain(what + ": the client sent more: " + toHex(extra));
}

uint8_t PeerLink::nextOctet(Bytes* out) {
  if (cursor_ == pending_.size()) fill();
  const char octet = pending_[cursor_++];
  out->push_back(octet);
  return static_cast<uint8_t>(octet);
}

bool PeerLink::expect(const Bytes& bytes, const std::string& what) {
  Bytes got;
  while (got.size() < bytes.size()) nextOctet(&got);
  if (got == bytes) return true;
  complain(what + ": expected " + toHex(bytes) + "\n got " + toHex(got));
  return false;
}

// Appends one value to *out; false when it was an end of contents.
bool PeerLink::readValue(Bytes* out, int depth) {
  if (depth > 64) {
    complain("client value nested too deeply");
    throw ScriptAbandoned();
  }
  const uint8_t identifier = nextOctet(out);
  if ((identifier & 0x1F) == 0x1F) {
    while (nextOctet(out) & 0x80) {
    }
  }
  const uint8_t first = nextOctet(out);
  if (identifier == 0 && first == 0) return false;
  if (first == 0x80) {
    while (readValue(out, depth + 1)) {
    }
    return true;
  }
  size_t length = first;
  if (first > 0x80) {
    const int count = first & 0x7F;
    if (count > 3) {
      complain("client sent an oversized length");
      throw ScriptAbandoned();
    }
    length = 0;
    for (int i = 0; i < count; ++i) length = length * 256 + nextOctet(out);
  }
  for (size_t i = 0; i < length; ++i) nextOctet(out);
  return true;
}

Bytes PeerLink::readMessage() {
  Bytes message;
  readValue(&message, 0);
  return message;
}

void PeerLink::send(const Bytes& bytes) {
  if (!stream_) {
    complain("send after close");
    throw ScriptAbandoned();
  }
  try {
    stream_->write(bytes.data(), bytes.size());
  } catch (const error::Exception& e) {
    complain("peer send failed: " + e.text());
    throw ScriptAbandoned();
  }
}

void PeerLink::close() {
  if (!stream_) return;
  try {
    stream_->close();
  } catch (const error::Exception&) {
  }
  stream_.reset();
}

ScriptedPeer::ScriptedPeer(Script script, std::chrono::milliseconds limit)
    : deadline_(std::chrono::steady_clock::now() + limit) {
  thread_ = std::thread([this, script = std::move(script)]() mutable { run(std::move(script)); });
}

ScriptedPeer::~ScriptedPeer() {
  if (thread_.joinable()) thread_.join();
  if (reported_) return;
  for (const std::string& complaint : complaints_) ADD_FAILURE() << "scripted peer: " << complaint;
}

void ScriptedPeer::run(Script script) {
  std::unique_ptr<old_protocol::SocketStream> stream;
  try {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline_ - std::chrono::steady_clock::now());
    stream = listener_.accept(static_cast<int>(std::max<int64_t>(left.count(), 0)));
  } catch (const error::Exception& e) {
    std::lock_guard<std::mutex> lock(mutex_);
    complaints_.push_back("accept failed: " + e.text());
    return;
  }
  if (!stream) {
    std::lock_guard<std::mutex> lock(mutex_);
    complaints_.push_back("the client never connected");
    return;
  }
  PeerLink link(std::move(stream), deadline_, &complaints_, &mutex_);
  try {
    script(link);
  } catch (const ScriptAbandoned&) {
  }
  link.close();
}

std::vector<std::string> ScriptedPeer::finish() {
  if (thread_.joinable()) thread_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  reported_ = true;
  return complaints_;
}

Bytes clientWants() { return hex("60 80 02 02 02 03 A0 80 00 00 00 00"); }

Bytes newSessionResp(uint32_t sessionId, const std::string& rootDomainId,
                     const std::string& mibRootId) {
  return berIndefinite("71", berMagnitude(sessionId) + hex("02 01 00") +
                                 berString(rootDomainId) + berString("") +
                                 berString(mibRootId));
}

Bytes acceptLogin(PeerLink& link, uint32_t sessionId) {
  link.expect(clientWants(), "ClientWants");
  link.send(hex("61 80 02 02 02 03 A0 80 00 00 00 00"));
  link.expect(hex("62 80 00 00"), "NegotiateAck");
  Bytes login = link.readMessage();
  link.send(newSessionResp(sessionId, "root", "mib"));
  return login;
}

uint32_t freshSessionId() {
  static std::atomic<uint32_t> next{0x1000};
  return next++;
}

std::unique_ptr<Session> openTestSession(uint16_t port) {
  return openSession(ConnectionFactory(), "127.0.0.1", port, "Exporter", "admin", "secret",
                     "lab");
}

}  // namespace peer

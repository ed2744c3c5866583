#include "server/request_decoder.h"

#include <initializer_list>
#include <limits>

#include "protocol/tags.h"

namespace server {

namespace {

using Outcome = RequestDecoder::Outcome;

constexpr int32_t kIdMax = 0x7fffffff;
// Deeper patterns are left to the protocol's reader (and then refused).
constexpr size_t kMaxDepth = 80;

std::string tag_octets(protocol::TagCode tag) {
  uint8_t octets[8];
  const size_t n = protocol::encode_tag(tag, octets);
  return std::string(reinterpret_cast<const char*>(octets), n);
}

// Reads values off a buffer. Every method returns false when the buffer
// ends (outcome_ kIncomplete) or the octets leave the accepted form
// (kDeclined); the cursor is of no further use then.
class Cursor {
 public:
  Cursor(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  Outcome failure() const { return failure_; }
  size_t position() const { return pos_; }

  // The identifier octets `tag` and, for a constructed value, 80.
  bool open(const std::string& tag) { return identifier(tag) && octet(0x80); }
  // At the end of contents of the open value: consumes 00 00 and returns
  // true; false (nothing consumed) when another value follows or on failure.
  bool atEnd() {
    if (!need(1)) return false;
    if (data_[pos_] != 0x00) return false;
    ++pos_;
    ended_ = octet(0x00);
    return ended_;
  }
  // Whether atEnd() returned false because of a failure.
  bool failed() const { return failed_; }

  // A primitive with `tag`: its content, at most `max` octets.
  bool primitive(const std::string& tag, size_t max, const uint8_t*& content, size_t& length) {
    if (!identifier(tag) || !need(1)) return false;
    const uint8_t first = data_[pos_++];
    if (first < 0x80) {
      length = first;
    } else if (first == 0x81) {
      if (!need(1)) return false;
      length = data_[pos_++];
    } else {
      return decline();
    }
    if (length > max) return decline();
    if (!need(length)) return false;
    content = data_ + pos_;
    pos_ += length;
    return true;
  }
  bool text(const std::string& tag, size_t max, std::string& out) {
    const uint8_t* content = nullptr;
    size_t length = 0;
    if (!primitive(tag, max, content, length)) return false;
    out.assign(reinterpret_cast<const char*>(content), length);
    return true;
  }
  bool int32(const std::string& tag, int32_t min, int32_t max, int32_t& out) {
    const uint8_t* content = nullptr;
    size_t length = 0;
    if (!primitive(tag, 4, content, length)) return false;
    if (length == 0) return decline();
    uint32_t bits = (content[0] & 0x80) != 0 ? ~uint32_t{0} : 0;
    for (size_t i = 0; i < length; ++i) bits = (bits << 8) | content[i];
    const int32_t value = static_cast<int32_t>(bits);
    if (value < min || value > max) return decline();
    out = value;
    return true;
  }
  bool uint32(const std::string& tag, uint32_t& out) {
    const uint8_t* content = nullptr;
    size_t length = 0;
    if (!primitive(tag, 5, content, length)) return false;
    if (length == 0 || (length == 5 && content[0] != 0x00)) return decline();
    uint64_t value = 0;
    for (size_t i = 0; i < length; ++i) value = (value << 8) | content[i];
    out = static_cast<uint32_t>(value);
    return true;
  }
  bool boolean(const std::string& tag, bool& out) {
    const uint8_t* content = nullptr;
    size_t length = 0;
    if (!primitive(tag, 1, content, length)) return false;
    if (length != 1) return decline();
    out = content[0] != 0;
    return true;
  }
  // Whether the next value has `tag` (`is`); false when the buffer ends.
  bool peekIs(const std::string& tag, bool& is) {
    for (size_t i = 0; i < tag.size(); ++i) {
      if (!need(i + 1)) return false;
      if (data_[pos_ + i] != static_cast<uint8_t>(tag[i])) {
        is = false;
        return true;
      }
    }
    is = true;
    return true;
  }
  bool null(const std::string& tag) {
    const uint8_t* content = nullptr;
    size_t length = 0;
    if (!primitive(tag, 0, content, length)) return false;
    return true;
  }
  bool decline() {
    failure_ = Outcome::kDeclined;
    failed_ = true;
    return false;
  }

 private:
  bool need(size_t n) {
    if (size_ - pos_ >= n) return true;
    failure_ = Outcome::kIncomplete;
    failed_ = true;
    return false;
  }
  bool identifier(const std::string& tag) {
    for (size_t i = 0; i < tag.size(); ++i) {
      if (!need(1)) return false;
      if (data_[pos_] != static_cast<uint8_t>(tag[i])) return decline();
      ++pos_;
    }
    return true;
  }
  bool octet(uint8_t expected) {
    if (!need(1)) return false;
    if (data_[pos_] != expected) return decline();
    ++pos_;
    return true;
  }

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  Outcome failure_ = Outcome::kDeclined;
  bool failed_ = false;
  bool ended_ = false;
};

}  // namespace

RequestDecoder::RequestDecoder() {
  constexpr bool legacy = false;  // requests come in the current encoding
  tags_.request = tag_octets(protocol::Request::staticTag(legacy));
  tags_.select = tag_octets(protocol::SelectReq::staticTag(legacy));
  tags_.getData = tag_octets(protocol::GetDataReq::staticTag(legacy));
  tags_.pattern = tag_octets(protocol::PathPattern::staticTag(legacy));
  tags_.list = tag_octets(protocol::seq_tag(legacy));
  tags_.set = tag_octets(protocol::set_tag(legacy));
  tags_.string = tag_octets(protocol::string_tag(legacy));
  tags_.integer = tag_octets(protocol::BE_INTEGER);
  tags_.boolean = tag_octets(protocol::BE_BOOLEAN);
  tags_.null = tag_octets(protocol::BE_NULL);
}

namespace {

using Tags = RequestDecoder::Tags;

bool read_pattern_fields(Cursor& c, const Tags& tags, protocol::PathPattern& p, size_t depth);

// A list of path pattern steps.
bool read_pattern_list(Cursor& c, const Tags& tags,
                       std::vector<std::unique_ptr<protocol::PathPattern>>& out, size_t depth) {
  if (!c.open(tags.list)) return false;
  while (!c.atEnd()) {
    if (c.failed()) return false;
    if (depth >= kMaxDepth) return c.decline();
    auto child = std::make_unique<protocol::PathPattern>();
    if (!c.open(tags.pattern) || !read_pattern_fields(c, tags, *child, depth + 1)) return false;
    out.push_back(std::move(child));
  }
  return true;
}

// A set or list of strings of at most `max` octets.
bool read_texts(Cursor& c, const std::string& tag, const Tags& tags, size_t max,
                std::vector<std::string>& out) {
  if (!c.open(tag)) return false;
  while (!c.atEnd()) {
    if (c.failed()) return false;
    out.emplace_back();
    if (!c.text(tags.string, max, out.back())) return false;
  }
  return true;
}

// The fields of a path pattern step whose header has been read, down to its
// end of contents. A step with a number, colon children, conditions or a
// property list is declined.
bool read_pattern_fields(Cursor& c, const Tags& tags, protocol::PathPattern& p, size_t depth) {
  if (!c.text(tags.string, 128, p.className) || !c.uint32(tags.integer, p.flags) ||
      !c.null(tags.null) || !read_pattern_list(c, tags, p.children, depth)) {
    return false;
  }
  for (const std::string* empty : {&tags.list, &tags.list, &tags.set}) {
    if (!c.open(*empty)) return false;
    if (!c.atEnd()) return c.failed() ? false : c.decline();
  }
  if (!c.atEnd()) return c.failed() ? false : c.decline();
  return true;
}

bool read_select(Cursor& c, const Tags& tags, protocol::SelectReq& s) {
  if (!read_texts(c, tags.set, tags, 32, s.startIds)) return false;
  s.pattern = std::make_unique<protocol::PathPattern>();
  if (!c.open(tags.pattern) || !read_pattern_fields(c, tags, *s.pattern, 1)) return false;
  if (!c.uint32(tags.integer, s.flags)) return false;
  if (!c.atEnd()) return c.failed() ? false : c.decline();
  return true;
}

bool read_get_data(Cursor& c, const Tags& tags, protocol::GetDataReq& g) {
  constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  if (!c.text(tags.string, 32, g.objectId) || !c.text(tags.string, 16, g.indexName) ||
      !c.boolean(tags.boolean, g.flag) || !c.int32(tags.integer, kMin, kMax, g.p1) ||
      !c.int32(tags.integer, kMin, kMax, g.p2) || !c.int32(tags.integer, 0, 2000, g.p3) ||
      !c.int32(tags.integer, kMin, kMax, g.p4)) {
    return false;
  }
  if (!c.atEnd()) return c.failed() ? false : c.decline();
  return true;
}

// The octets of one value in the accepted form, any tag: true with `pos`
// past it, false when the octets end or leave the form.
bool skip_value(const std::string& bytes, size_t& pos, size_t depth) {
  if (depth > kMaxDepth || pos >= bytes.size()) return false;
  const uint8_t first = static_cast<uint8_t>(bytes[pos++]);
  if (first == 0x00 || first == 0x19) return false;
  if ((first & 0x1F) == 0x1F) {
    do {
      if (pos >= bytes.size()) return false;
    } while ((static_cast<uint8_t>(bytes[pos++]) & 0x80) != 0);
  }
  if (pos >= bytes.size()) return false;
  const uint8_t length = static_cast<uint8_t>(bytes[pos++]);
  if ((first & 0x20) != 0) {
    if (length != 0x80) return false;
    for (;;) {
      if (pos + 1 < bytes.size() && bytes[pos] == '\0' && bytes[pos + 1] == '\0') {
        pos += 2;
        return true;
      }
      if (!skip_value(bytes, pos, depth + 1)) return false;
    }
  }
  size_t n = length;
  if (length == 0x81) {
    if (pos >= bytes.size()) return false;
    n = static_cast<uint8_t>(bytes[pos++]);
  } else if (length >= 0x80) {
    return false;
  }
  if (bytes.size() - pos < n) return false;
  pos += n;
  return true;
}

}  // namespace

RequestDecoder::Result RequestDecoder::decode(const uint8_t* data, size_t size) const {
  Result result;
  Cursor c(data, size);
  auto request = std::make_unique<protocol::Request>();
  bool ok = c.open(tags_.request) && c.int32(tags_.integer, 0, kIdMax, request->id);
  if (ok) {
    bool isSelect = false;
    ok = c.peekIs(tags_.select, isSelect);
    if (ok && isSelect) {
      auto select = std::make_unique<protocol::SelectReq>();
      ok = c.open(tags_.select) && read_select(c, tags_, *select);
      request->req = std::move(select);
    } else if (ok) {
      auto data = std::make_unique<protocol::GetDataReq>();
      ok = c.open(tags_.getData) && read_get_data(c, tags_, *data);
      request->req = std::move(data);
    }
  }
  if (ok && !c.atEnd()) ok = c.failed() ? false : c.decline();
  if (!ok) {
    result.outcome = c.failure();
    return result;
  }
  result.outcome = Outcome::kComplete;
  result.length = c.position();
  result.request = std::move(request);
  return result;
}

bool is_whole_values(const std::string& bytes, size_t count) {
  size_t pos = 0;
  size_t values = 0;
  while (pos < bytes.size()) {
    if (bytes[pos] == '\0' || bytes[pos] == '\x19') {
      ++pos;
      continue;
    }
    if (!skip_value(bytes, pos, 0)) return false;
    ++values;
  }
  return values == count;
}

}  // namespace server

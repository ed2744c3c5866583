#include "server/object_encoder.h"

#include <algorithm>

#include "protocol/messages.h"
#include "protocol/tags.h"
#include "server/byte_sink.h"
#include "util/error.h"

namespace server {

namespace {

// An Object written with no children ends with an empty child list, an
// empty number set and its own end of contents: 5 x (2 octets).
constexpr size_t kEmptyTail = 10;

std::string encode_head(const StoredObject& object, PropertyChoice choice, bool legacy) {
  protocol::Object message;
  message.className = object.className;
  message.flags = object.flags;
  message.id = object.id;
  if (choice.any) {
    for (const PropertyValue& p : object.properties) {
      if (choice.only != nullptr && !choice.only->empty() &&
          std::find(choice.only->begin(), choice.only->end(), p.name) == choice.only->end()) {
        continue;
      }
      message.properties.push_back(to_property(p));
    }
  }
  std::string bytes = encode(message, legacy);
  if (bytes.size() < kEmptyTail ||
      bytes.compare(bytes.size() - 4, 4, std::string(4, '\0')) != 0) {
    util::assert_failed("Object encoding does not end as expected");
  }
  bytes.resize(bytes.size() - kEmptyTail);
  return bytes;
}

void append_tag(std::string& out, protocol::TagCode tag) {
  uint8_t octets[8];
  const size_t n = protocol::encode_tag(tag, octets);
  out.append(reinterpret_cast<const char*>(octets), n);
}

}  // namespace

std::shared_ptr<const std::string> ObjectEncoder::head(const StoredObject& object,
                                                       PropertyChoice choice, bool legacy) {
  const bool limited = choice.any && choice.only != nullptr && !choice.only->empty();
  if (limited) return std::make_shared<const std::string>(encode_head(object, choice, legacy));
  auto& table = heads_[(choice.any ? 2 : 0) + (legacy ? 1 : 0)];
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = table.find(object.id);
    if (found != table.end()) return found->second;
  }
  auto bytes = std::make_shared<const std::string>(encode_head(object, choice, legacy));
  std::lock_guard<std::mutex> lock(mutex_);
  size_t total = 0;
  for (const auto& t : heads_) total += t.size();
  if (total >= capacity_) {
    for (auto& t : heads_) t.clear();
  }
  table.emplace(object.id, bytes);
  return bytes;
}

std::shared_ptr<const StoredObject> ObjectEncoder::find(const Database& db, const std::string& id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = objects_.find(id);
    if (found != objects_.end()) return found->second;
  }
  std::shared_ptr<const StoredObject> object = db.find(id);
  if (!object) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  if (objects_.size() >= capacity_) objects_.clear();
  objects_.emplace(id, object);
  return object;
}

size_t ObjectEncoder::cached() const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t total = 0;
  for (const auto& t : heads_) total += t.size();
  return total;
}

void append_object(std::string& out, const std::string& head, const std::string& children,
                   bool legacy) {
  out += head;
  append_tag(out, protocol::seq_tag(legacy));
  out += '\x80';
  out += children;
  out.append(2, '\0');
  append_tag(out, protocol::set_tag(legacy));
  out += '\x80';
  out.append(4, '\0');  // the empty number set's end and the Object's end
}

}  // namespace server

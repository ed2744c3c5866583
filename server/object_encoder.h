// Encoding of the database's objects as protocol::Object values, with a
// cache of the objects and encodings that selects ask for again and again.
//
// An Object is written in two parts: its head (class name, flags, id, text
// and property list) and its tail (the list of child objects, the empty
// number set and the end of contents). Heads do not depend on the select
// that asks for them unless it limits the properties, so they are cached;
// children are appended per answer (answer_encoder.h).
#ifndef TALVIX_SERVER_OBJECT_ENCODER_H_
#define TALVIX_SERVER_OBJECT_ENCODER_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/answer_encoder.h"
#include "server/database.h"

namespace server {

class ObjectEncoder {
 public:
  // Keeps at most `capacity` heads; when full, the cache starts over.
  explicit ObjectEncoder(size_t capacity = 200000) : capacity_(capacity) {}
  ObjectEncoder(const ObjectEncoder&) = delete;
  ObjectEncoder& operator=(const ObjectEncoder&) = delete;

  // The head of `object` in the given encoding. Thread-safe. Throws
  // protocol::EBer when a field does not fit its wire limits (an over-long
  // id, for instance); nothing is cached then.
  std::shared_ptr<const std::string> head(const StoredObject& object, PropertyChoice properties,
                                          bool legacy);
  // db.find(id), remembered: a database may compute its objects on every
  // lookup, and the same objects are asked for again and again. The
  // database must not change while the encoder is in use.
  std::shared_ptr<const StoredObject> find(const Database& db, const std::string& id);

  size_t cached() const;

 private:
  const size_t capacity_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<const std::string>> heads_[4];
  std::unordered_map<std::string, std::shared_ptr<const StoredObject>> objects_;
};

}  // namespace server

#endif  // TALVIX_SERVER_OBJECT_ENCODER_H_

// Decoding speed of the BER reader on the message that dominates an export:
// a Response with a SelectResp of many objects, each with a handful of
// properties (strings, integers, dates, a string list). The message is
// encoded once with the message classes, then decoded again and again from
// memory through BerReader and the client's protocol, the lower stream
// serving 64 KiB chunks as a socket under load would. Reported: octets per
// second (bytes_per_second) and objects per second (the "objects" rate).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "protocol/property_codec.h"

namespace {

constexpr size_t kChunk = 65536;

class ByteSink : public net::ByteOutput {
 public:
  void write(const void* data, size_t length) override {
    const auto* bytes = static_cast<const uint8_t*>(data);
    out.insert(out.end(), bytes, bytes + length);
  }
  void flush() override {}
  std::vector<uint8_t> out;
};

// Serves `data` (which must outlive the stream) in chunks of kChunk octets.
class MemoryStream : public net::BasicIo {
 public:
  explicit MemoryStream(const std::vector<uint8_t>& data) : data_(data) {}
  uint64_t read(void* buffer, uint64_t capacity) override {
    const size_t count = std::min<size_t>({kChunk, data_.size() - pos_, static_cast<size_t>(capacity)});
    std::memcpy(buffer, data_.data() + pos_, count);
    pos_ += count;
    return count;
  }
  bool readable() override { return pos_ < data_.size(); }
  void write(const void*, size_t) override {}
  void flush() override {}

 private:
  const std::vector<uint8_t>& data_;
  size_t pos_ = 0;
};

void add(protocol::Object& object, auto&&... args) {
  auto property = std::make_unique<protocol::Property>();
  protocol::encode_property(*property, args...);
  object.properties.push_back(std::move(property));
}

// The encoded Response with `count` objects of eight properties each.
std::vector<uint8_t> encoded_response(int count) {
  auto select = std::make_unique<protocol::SelectResp>();
  for (int i = 0; i < count; ++i) {
    auto object = std::make_unique<protocol::Object>();
    object->className = i % 10 == 0 ? "Domain" : "Node";
    object->flags = 3;
    object->id = "obj" + std::to_string(100000 + i);
    object->text = "object number " + std::to_string(i);
    add(*object, "name", 6u, "node-" + std::to_string(i) + ".site.example");
    add(*object, "description", 6u, "Core router in building " + std::to_string(i % 17));
    add(*object, "pollInterval", 3u, int32_t(300));
    add(*object, "flags", 2u, uint32_t(i * 7));
    add(*object, "created", 5u, int32_t(1600000000 + i));
    add(*object, "modified", 5u, int32_t(1700000000 + i));
    add(*object, "managed", 1u, i % 2 == 0);
    add(*object, "aliases", 8u, std::vector<std::string>{"alias-a", "alias-b", "alias-c"});
    object->numbers = {1, 2, 3};
    select->objects.push_back(std::move(object));
  }
  protocol::Response response;
  response.id = 42;
  response.resp = std::move(select);
  ByteSink sink;
  response.write(sink, false);
  return sink.out;
}

void BM_DecodeSelectResp(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const std::vector<uint8_t> bytes = encoded_response(count);
  for (auto _ : state) {
    auto owned = std::make_unique<MemoryStream>(bytes);
    MemoryStream* stream = owned.get();
    protocol::BerReader reader(protocol::guiProtocol(), std::move(owned));
    while (stream->readable()) reader.readSome(false);
    std::unique_ptr<protocol::BerConstructed> message = reader.takeMessage();
    auto* response = dynamic_cast<protocol::Response*>(message.get());
    auto* select = response == nullptr ? nullptr : dynamic_cast<protocol::SelectResp*>(response->resp.get());
    if (select == nullptr || select->objects.size() != static_cast<size_t>(count)) {
      state.SkipWithError("the response did not decode");
      break;
    }
    benchmark::DoNotOptimize(select->objects.back().get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
  state.counters["objects"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["message_octets"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_DecodeSelectResp)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

#include "server/generator.h"

#include <optional>
#include <string_view>

#include "protocol/property_types.h"
#include "util/error.h"

namespace server {

namespace {

using enum protocol::PropertyType;

constexpr uint64_t kMaxDomains = uint64_t{1} << 31;
constexpr uint64_t kMaxObjects = uint64_t{1} << 48;
constexpr int32_t kHistoryStart = 1200000000;  // 2008-01-10
constexpr int32_t kRowSeconds = 300;
// The objects outside the domain tree: user, alert group, the MIB root, its
// two modules and three objects.
constexpr uint64_t kFixedObjects = 8;
const char* const kIndexName = "value";
// Datatypes of the checks, by check number modulo 5.
constexpr int32_t kCheckDatatypes[5] = {5, 2, 6, 3, 4};

uint64_t mix(uint64_t x) {  // splitmix64 finaliser
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

uint64_t hash(uint64_t a, uint64_t b, uint64_t c = 0, uint64_t d = 0) {
  return mix(mix(mix(mix(a) ^ b) ^ c) ^ d);
}

// Decimal without sign or leading zeros at `pos`; advances `pos`.
std::optional<uint64_t> read_number(std::string_view s, size_t& pos) {
  size_t start = pos;
  uint64_t value = 0;
  while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
    if (pos - start >= 18) return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(s[pos] - '0');
    ++pos;
  }
  if (pos == start || (s[start] == '0' && pos - start > 1)) return std::nullopt;
  return value;
}

PropertyValue prop(std::string name, uint32_t type, Value value) {
  return PropertyValue{std::move(name), type, std::move(value)};
}

std::string domain_id(uint64_t k) { return "d" + std::to_string(k); }
std::string node_id(uint64_t k, uint64_t i) { return "n" + std::to_string(k) + "." + std::to_string(i); }
std::string check_id(uint64_t k, uint64_t i, uint64_t j) {
  return "c" + std::to_string(k) + "." + std::to_string(i) + "." + std::to_string(j);
}

class GeneratedDatabase : public Database {
 public:
  GeneratedDatabase(const GeneratorShape& shape, const GeneratedCounts& counts)
      : shape_(shape), domains_(counts.domains) {}

  std::string rootDomainId() const override { return "d0"; }
  std::string mibRootId() const override { return "mib"; }

  std::shared_ptr<const StoredObject> find(const std::string& id) const override {
    if (id.empty() || id.size() > kMaxIdLength) return nullptr;
    if (std::shared_ptr<const StoredObject> fixed = findFixed(id)) return fixed;
    std::string_view s(id);
    size_t pos = 1;
    std::optional<uint64_t> k = read_number(s, pos);
    if (!k || *k >= domains_) return nullptr;
    if (s[0] == 'd' && pos == s.size()) return makeDomain(*k);
    if (s[0] != 'n' && s[0] != 'c') return nullptr;
    if (pos == s.size() || s[pos++] != '.') return nullptr;
    std::optional<uint64_t> i = read_number(s, pos);
    if (!i || *i >= shape_.nodesPerDomain) return nullptr;
    if (s[0] == 'n') return pos == s.size() ? makeNode(*k, *i) : nullptr;
    if (pos == s.size() || s[pos++] != '.') return nullptr;
    std::optional<uint64_t> j = read_number(s, pos);
    if (!j || *j >= shape_.checksPerNode || pos != s.size()) return nullptr;
    return makeCheck(*k, *i, *j);
  }

  std::shared_ptr<const History> history(const std::string& objectId,
                                         const std::string& indexName) const override {
    if (indexName != kIndexName || objectId.size() > kMaxIdLength || objectId.empty() ||
        objectId[0] != 'c') {
      return nullptr;
    }
    std::string_view s(objectId);
    size_t pos = 1;
    std::optional<uint64_t> k = read_number(s, pos);
    if (!k || *k >= domains_ || pos == s.size() || s[pos++] != '.') return nullptr;
    std::optional<uint64_t> i = read_number(s, pos);
    if (!i || *i >= shape_.nodesPerDomain || pos == s.size() || s[pos++] != '.') return nullptr;
    std::optional<uint64_t> j = read_number(s, pos);
    if (!j || *j >= shape_.checksPerNode || pos != s.size()) return nullptr;
    return makeHistory(*k, *i, *j);
  }

  bool checkLogin(const std::string& loginDomain, const std::string& user,
                  const std::string& password) const override {
    return loginDomain == "." && user == "admin" && password == "secret";
  }

 private:
  uint32_t level(uint64_t k) const {
    uint32_t l = 0;
    for (; k > 0; k = (k - 1) / shape_.fanout) ++l;
    return l;
  }

  std::string treeLabel(uint64_t k) const {
    if (k == 0) return ".";
    std::string label;
    for (; k > 0; k = (k - 1) / shape_.fanout) {
      std::string part = "dom" + std::to_string((k - 1) % shape_.fanout);
      label = label.empty() ? part : part + "." + label;
    }
    return label;
  }

  std::shared_ptr<const StoredObject> makeDomain(uint64_t k) const {
    auto o = std::make_shared<StoredObject>();
    o->className = "Domain";
    o->id = domain_id(k);
    const std::string label = treeLabel(k);
    if (k == 0) {
      o->properties.push_back(prop("siblingName", kTypeString | protocol::kPropComputed, std::string("root")));
      o->properties.push_back(prop("name", kTypeString, std::string("Generated installation")));
      o->children = {"u.admin", "ag.ops"};
    } else {
      const std::string parentId = domain_id((k - 1) / shape_.fanout);
      o->properties.push_back(prop("siblingName", kTypeString | protocol::kPropComputed,
                                   "dom" + std::to_string((k - 1) % shape_.fanout)));
      o->properties.push_back(prop("name", kTypeString, "Generated domain " + std::to_string(k)));
      o->properties.push_back(prop("parentId", kTypeObject | protocol::kPropComputed, parentId));
    }
    o->properties.push_back(prop("treeLabel", kTypeString, label));
    o->properties.push_back(prop("level", kTypeInteger, static_cast<int32_t>(level(k))));
    for (uint64_t i = 0; i < shape_.nodesPerDomain; ++i) o->children.push_back(node_id(k, i));
    if (level(k) < shape_.depth) {
      for (uint64_t c = 0; c < shape_.fanout; ++c) {
        o->children.push_back(domain_id(k * shape_.fanout + 1 + c));
      }
    }
    return o;
  }

  std::shared_ptr<const StoredObject> makeNode(uint64_t k, uint64_t i) const {
    auto o = std::make_shared<StoredObject>();
    o->className = "Node";
    o->id = node_id(k, i);
    uint64_t h = hash(1, k, i);
    const std::string nodeName = "node" + std::to_string(i);
    o->properties.reserve(7);
    o->properties.push_back(prop("siblingName", kTypeString, nodeName));
    o->properties.push_back(prop("name", kTypeString, nodeName + ".d" + std::to_string(k) + ".example"));
    o->properties.push_back(prop("address", kTypeGid, static_cast<uint32_t>(0x0a000000u | (h & 0xffffff))));
    o->properties.push_back(prop("enabled", kTypeBoolean, (h >> 24 & 7) != 0));
    o->properties.push_back(prop("pollInterval", kTypeUnsigned, static_cast<uint32_t>(60 * (1 + (h >> 28 & 7)))));
    o->properties.push_back(prop("created", kTypeDate, static_cast<int32_t>(kHistoryStart - static_cast<int32_t>(h >> 40 & 0xffffff))));
    o->properties.push_back(prop("parentId", kTypeObject | protocol::kPropComputed, domain_id(k)));
    o->children.reserve(shape_.checksPerNode);
    for (uint64_t j = 0; j < shape_.checksPerNode; ++j) o->children.push_back(check_id(k, i, j));
    return o;
  }

  std::shared_ptr<const StoredObject> makeCheck(uint64_t k, uint64_t i, uint64_t j) const {
    auto o = std::make_shared<StoredObject>();
    o->className = "Check";
    o->id = check_id(k, i, j);
    uint64_t h = hash(2, k, i, j);
    o->properties.reserve(4);
    o->properties.push_back(prop("siblingName", kTypeString, "check" + std::to_string(j)));
    o->properties.push_back(prop(kIndexName, kTypeIndex, static_cast<uint32_t>(j + 1)));
    o->properties.push_back(prop("threshold", kTypeReal, static_cast<double>(h % 1000) / 8.0));
    o->properties.push_back(prop("parentId", kTypeObject | protocol::kPropComputed, node_id(k, i)));
    return o;
  }

  std::shared_ptr<const History> makeHistory(uint64_t k, uint64_t i, uint64_t j) const {
    auto series = std::make_shared<History>();
    series->dataType = kCheckDatatypes[j % 5];
    series->intervals.reserve(shape_.rowsPerCheck);
    for (uint32_t r = 0; r < shape_.rowsPerCheck; ++r) {
      uint64_t h = hash(k, i, j, r);
      int32_t start = kHistoryStart + static_cast<int32_t>(r) * kRowSeconds;
      int32_t end = start + kRowSeconds;
      double min = static_cast<double>(h & 0xff);
      double max = min + static_cast<double>(h >> 8 & 0xff);
      double avg = (min + max) / 2;
      uint32_t ngood = static_cast<uint32_t>(h >> 16 & 7) + 1;
      uint32_t nbad = static_cast<uint32_t>(h >> 19 & 1);
      switch (series->dataType) {
        case 5: series->intervals.emplace_back(ContinuousRow{start, end, max, avg, min, ngood, nbad}); break;
        case 2:
        case 6: series->intervals.emplace_back(SawtoothRow{start, end, max, avg, min, ngood, nbad}); break;
        case 3: series->intervals.emplace_back(EnumRow{start, end, static_cast<uint32_t>(h >> 32), ngood, nbad}); break;
        default:
          series->intervals.emplace_back(IncidentRow{start, static_cast<int32_t>(h >> 20 & 3),
                                                     "incident " + std::to_string(r) + " on " + check_id(k, i, j)});
      }
    }
    return series;
  }

  std::shared_ptr<const StoredObject> findFixed(const std::string& id) const {
    if (id[0] != 'u' && id[0] != 'a' && id[0] != 'm') return nullptr;
    auto o = std::make_shared<StoredObject>();
    o->id = id;
    if (id == "u.admin") {
      o->className = "User";
      o->properties = {prop("siblingName", kTypeString, std::string("admin")),
                       prop("fullName", kTypeString, std::string("Generated Administrator"))};
    } else if (id == "ag.ops") {
      o->className = "AlertGroup";
      o->properties = {prop("siblingName", kTypeString, std::string("operations")),
                       prop("members", kTypeObjectSet, std::vector<std::string>{"u.admin"})};
    } else if (id == "mib") {
      o->className = "MibRoot";
      o->properties = {prop("siblingName", kTypeString, std::string("mibs"))};
      o->children = {"mibm0", "mibm1", "mibo0", "mibo1", "mibo2"};
    } else if (id == "mibm0" || id == "mibm1") {
      o->className = "MibModule";
      o->properties = {prop("siblingName", kTypeString, "GEN-MIB-" + id.substr(4))};
    } else if (id == "mibo0" || id == "mibo1" || id == "mibo2") {
      o->className = "MibObject";
      o->properties = {
          prop("siblingName", kTypeString, "genObject" + id.substr(4)),
          prop("snmpId", kTypeSnmpOid | protocol::kPropComputed, "1.3.6.1.4.1.99999.9." + id.substr(4))};
    } else {
      return nullptr;
    }
    return o;
  }

  const GeneratorShape shape_;
  const uint64_t domains_;
};

void check_range(const char* field, uint64_t value, uint64_t min, uint64_t max) {
  if (value < min || value > max) {
    throw util::EFatal("Database shape: " + std::string(field) + " " + std::to_string(value) +
                       " is outside " + std::to_string(min) + ".." + std::to_string(max));
  }
}

uint64_t checked_product(uint64_t a, uint64_t b) {
  uint64_t r;
  if (__builtin_mul_overflow(a, b, &r) || r > kMaxObjects) {
    throw util::EFatal("Database shape: more than 2^48 objects");
  }
  return r;
}

}  // namespace

GeneratedCounts generated_counts(const GeneratorShape& shape) {
  check_range("fanout", shape.fanout, 1, 1000);
  check_range("depth", shape.depth, 0, 30);
  check_range("nodesPerDomain", shape.nodesPerDomain, 0, 1000000);
  check_range("checksPerNode", shape.checksPerNode, 0, 10000);
  check_range("rowsPerCheck", shape.rowsPerCheck, 0, 100000);
  GeneratedCounts c;
  uint64_t levelSize = 1;
  for (uint32_t l = 0; l <= shape.depth; ++l) {
    c.domains += levelSize;
    if (c.domains > kMaxDomains) throw util::EFatal("Database shape: more than 2^31 domains");
    levelSize *= shape.fanout;  // at most 2^31 * 1000 before the check above fails
  }
  c.nodes = checked_product(c.domains, shape.nodesPerDomain);
  c.checks = checked_product(c.nodes, shape.checksPerNode);
  c.objects = c.domains + c.nodes + c.checks + kFixedObjects;
  if (c.objects > kMaxObjects) throw util::EFatal("Database shape: more than 2^48 objects");
  c.historyRows = c.checks * shape.rowsPerCheck;  // below 2^48 * 2^17
  return c;
}

std::unique_ptr<Database> make_generated_database(const GeneratorShape& shape) {
  GeneratedCounts counts = generated_counts(shape);
  return std::make_unique<GeneratedDatabase>(shape, counts);
}

GeneratorShape parse_generator_shape(const std::string& text) {
  std::string_view s(text);
  size_t pos = 0;
  uint64_t values[5] = {0, 0, 0, 0, 1};
  auto bad = [&](const std::string& why) {
    return util::EFatal("Bad database shape \"" + text + "\": " + why);
  };
  for (int n = 0; n < 5; ++n) {
    if (n == 4 && pos == s.size() && s.back() != '/') break;
    std::optional<uint64_t> v = read_number(s, pos);
    if (!v || *v > 0xffffffffu) throw bad("expected FANOUTxNODESxCHECKSxROWS/DEPTH");
    values[n] = *v;
    if (n < 3) {
      if (pos == s.size() || s[pos] != 'x') throw bad("expected FANOUTxNODESxCHECKSxROWS/DEPTH");
      ++pos;
    } else if (n == 3 && pos != s.size()) {
      if (s[pos] != '/') throw bad("expected FANOUTxNODESxCHECKSxROWS/DEPTH");
      ++pos;
    }
  }
  if (pos != s.size()) throw bad("text after the depth");
  GeneratorShape shape;
  shape.fanout = static_cast<uint32_t>(values[0]);
  shape.nodesPerDomain = static_cast<uint32_t>(values[1]);
  shape.checksPerNode = static_cast<uint32_t>(values[2]);
  shape.rowsPerCheck = static_cast<uint32_t>(values[3]);
  shape.depth = static_cast<uint32_t>(values[4]);
  return shape;
}

}  // namespace server

#include "support/run_export.h"

#include <sstream>

#include "porter/export_database.h"
#include "porter/run.h"
#include "server/database_json.h"
#include "server/generator.h"
#include "util/error.h"

namespace support {
namespace {

class FaultyObjectDatabase : public ForwardingDatabase {
 public:
  FaultyObjectDatabase(std::shared_ptr<const server::Database> inner, std::string victim,
                       ObjectFault fault)
      : ForwardingDatabase(std::move(inner)), victim_(std::move(victim)), fault_(fault) {}

  // A vanishing object is listed by its parent under a renamed key, which
  // the server still finds, while its own id finds nothing.
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override {
    const bool vanishes = fault_ == ObjectFault::kVanishes;
    if (vanishes && id == victim_) return nullptr;
    std::shared_ptr<const server::StoredObject> object =
        inner_->find(vanishes && id == victim_ + "~" ? victim_ : id);
    if (!object || (!vanishes && id != victim_)) return object;
    auto changed = std::make_shared<server::StoredObject>(*object);
    if (vanishes) {
      for (std::string& child : changed->children) {
        if (child == victim_) child += "~";
      }
    } else {
      auto& properties = changed->properties;
      const char* dropped = fault_ == ObjectFault::kNoSiblingName ? "siblingName"
                            : fault_ == ObjectFault::kNoTreeLabel ? "treeLabel"
                                                                   : "";
      std::erase_if(properties, [&](const server::PropertyValue& p) { return p.name == dropped; });
      if (fault_ == ObjectFault::kUnrenderable) {
        properties.push_back({"when", protocol::kTypeDate, std::string("soon")});
      }
    }
    return changed;
  }

  std::shared_ptr<const server::History> history(const std::string& objectId,
                                                 const std::string& indexName) const override {
    const int type = fault_ == ObjectFault::kBadHistory   ? 12
                     : fault_ == ObjectFault::kOldHistory ? 1
                     : fault_ == ObjectFault::kDatatype18 ? 18
                                                          : 0;
    if (objectId != victim_ || type == 0) return inner_->history(objectId, indexName);
    auto history = std::make_shared<server::History>();
    history->dataType = type;
    if (type == 1) history->intervals.push_back(server::ContinuousDeprecatedRow{100, 200, 3, 1, {1, 2.5, 3}});
    else history->intervals.push_back(server::ContinuousRow{100, 200, 3, 2, 1, 4, 0});
    return history;
  }

 private:
  std::string victim_;
  ObjectFault fault_;
};

}  // namespace

std::shared_ptr<const server::Database> exportable_database() {
  return server::make_generated_database(server::parse_generator_shape("2x3x2x4/2"));
}

std::shared_ptr<const server::Database> tricky_database() {
  return server::load_json_database(std::string(TALVIX_SOURCE_DIR) + "/tests/data/pipelined_tricky.json");
}

std::shared_ptr<const server::Database> with_fault(std::shared_ptr<const server::Database> inner,
                                                   std::string victim, ObjectFault fault) {
  return std::make_shared<FaultyObjectDatabase>(std::move(inner), std::move(victim), fault);
}

Outcome run_exporter(uint16_t port, std::vector<std::string> args, uint32_t depth,
                     bool errorIsTerminal) {
  std::vector<std::string> line = {"talvix-exporter", "-s", "127.0.0.1", "-p",
                                   std::to_string(port), "-l", "admin", "-P", "secret"};
  line.insert(line.end(), args.begin(), args.end());
  if (depth != kSequential) line.insert(line.end(), {"-o", "pipeline=" + std::to_string(depth)});
  std::vector<char*> argv;
  for (std::string& s : line) argv.push_back(s.data());
  argv.push_back(nullptr);

  Outcome outcome;
  std::ostringstream document, errors;
  porter::ExportEnvironment environment;
  environment.standardOutput = &document;
  environment.errorStream = &errors;
  environment.errorIsTerminal = errorIsTerminal;
  environment.clock = [] { return int64_t{1204329600}; };  // 2008-03-01 00:00:00 UTC
  environment.pipelineStats = &outcome.stats;
  outcome.exitCode = porter::run_command_line(
      static_cast<int>(line.size()), argv.data(),
      [&](const porter::RunSettings& s, porter::RunStatistics& statistics) {
        try {
          porter::export_database(s, environment, &statistics);
        } catch (const util::Exception& e) {
          outcome.failure = e.text();
          throw;
        }
      },
      errors);
  outcome.document = document.str();
  outcome.errors = errors.str();
  return outcome;
}

}  // namespace support

// Runs the exporter's command line in-process against a stand-in server on
// the loopback interface, wired as talvix-exporter's main() does, with the
// document and the error stream captured; and the databases the in-process
// export tests run on.
#ifndef TALVIX_TESTS_SUPPORT_RUN_EXPORT_H_
#define TALVIX_TESTS_SUPPORT_RUN_EXPORT_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "porter/pipelined_source.h"
#include "server/database.h"

namespace support {

struct Outcome {
  int exitCode = -1;
  std::string document;  // what went to standard output
  std::string errors;    // everything the run wrote to the error stream
  std::string failure;   // the text of the exception that ended the export
  porter::PipelineStats stats;
};

// No -o pipeline option at all.
constexpr uint32_t kSequential = 0;

// Runs "talvix-exporter -s 127.0.0.1 -p port -l admin -P secret" with `args`
// after the login, and -o pipeline=`depth` unless depth is kSequential. The
// Meta timestamp is always that of 2008-03-01 00:00:00 UTC.
Outcome run_exporter(uint16_t port, std::vector<std::string> args, uint32_t depth = kSequential,
                     bool errorIsTerminal = false);

// A small generated database (7 domains, 21 nodes, 42 checks with 4 history
// rows each); login admin / secret in domain ".".
std::shared_ptr<const server::Database> exportable_database();

// tests/data/pipelined_tricky.json, one table of objects for most cases:
// written objects with history (a series with rows, an empty one, one the
// server refuses), duplicates, flagged children, a null siblingName, an
// AlertPathUsage without one, a MIB object outside the MIB selection, a
// default-ignored class, subdomains, and a MIB section with a duplicate
// name. Every dropped object has children.
std::shared_ptr<const server::Database> tricky_database();

// A database passing every question on to `inner`; tests override a part.
class ForwardingDatabase : public server::Database {
 public:
  explicit ForwardingDatabase(std::shared_ptr<const server::Database> inner)
      : inner_(std::move(inner)) {}
  std::string rootDomainId() const override { return inner_->rootDomainId(); }
  std::string mibRootId() const override { return inner_->mibRootId(); }
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override {
    return inner_->find(id);
  }
  std::shared_ptr<const server::History> history(const std::string& objectId,
                                                 const std::string& indexName) const override {
    return inner_->history(objectId, indexName);
  }
  bool checkLogin(const std::string& d, const std::string& u,
                  const std::string& p) const override {
    return inner_->checkLogin(d, u, p);
  }

 protected:
  std::shared_ptr<const server::Database> inner_;
};

// What goes wrong with the one object `victim` of a database.
enum class ObjectFault {
  kVanishes,       // listed by its parent, but selecting it by its id finds nothing
  kBadHistory,     // every history series of datatype 12, with a continuous row
  kOldHistory,     // every history series of datatype 1 (continuousDEPRECATED)
  kDatatype18,     // every history series of datatype 18, which no answer may carry
  kNoSiblingName,  // its siblingName property is missing
  kNoTreeLabel,    // its treeLabel property is missing
  kUnrenderable,   // an extra Date property holding a string
};
std::shared_ptr<const server::Database> with_fault(std::shared_ptr<const server::Database> inner,
                                                   std::string victim, ObjectFault fault);

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_RUN_EXPORT_H_

// A generated Database of a chosen shape, for benchmarks and load tests.
//
// The tree is a complete domain tree: the root domain and, below every
// domain above the last level, `fanout` child domains, `depth` levels deep.
// Every domain holds `nodesPerDomain` nodes, every node `checksPerNode`
// checks, and every check one index property "value" whose history has
// `rowsPerCheck` rows; the checks' datatypes cycle through continuous,
// sawtooth, accumulation, enum and incidents. The root domain also holds a
// user and an alert group; the MIB root holds two modules and three objects.
//
// Ids encode the position ("d<k>" for the domain numbered k in breadth-first
// order, "n<k>.<i>" for node i of that domain, "c<k>.<i>.<j>" for its check
// j), and every object and history series is computed from its id when asked
// for: nothing is stored per object, so memory does not grow with the shape
// and the same id always gives the same answer. One user may log in: admin
// with password secret in login domain ".".
#ifndef TALVIX_SERVER_GENERATOR_H_
#define TALVIX_SERVER_GENERATOR_H_

#include <cstdint>
#include <memory>
#include <string>

#include "server/database.h"

namespace server {

struct GeneratorShape {
  uint32_t fanout = 2;           // child domains per domain, 1..1000
  uint32_t depth = 1;            // domain levels below the root, 0..30
  uint32_t nodesPerDomain = 10;  // 0..1000000
  uint32_t checksPerNode = 5;    // 0..10000
  uint32_t rowsPerCheck = 10;    // 0..100000
};

// What a shape amounts to. `objects` counts every object of the database,
// the extra user, alert group and MIB objects included.
struct GeneratedCounts {
  uint64_t domains = 0;
  uint64_t nodes = 0;
  uint64_t checks = 0;
  uint64_t objects = 0;
  uint64_t historyRows = 0;
};

// The counts of a valid shape. Throws util::EFatal naming the field for a
// value outside its range, or when the domain tree would have more than
// 2^31 domains or the database more than 2^48 objects.
GeneratedCounts generated_counts(const GeneratorShape& shape);

// A database of that shape; throws as generated_counts() does.
std::unique_ptr<Database> make_generated_database(const GeneratorShape& shape);

// Reads a shape written "FANOUTxNODESxCHECKSxROWS/DEPTH" (e.g. "3x10x5x20/2";
// "/DEPTH" may be left out for depth 1). Throws util::EFatal "Bad database
// shape \"<text>\": ..." when the text does not have that form; the values
// are not range-checked here.
GeneratorShape parse_generator_shape(const std::string& text);

}  // namespace server

#endif  // TALVIX_SERVER_GENERATOR_H_

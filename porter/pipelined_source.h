// A WalkSource that asks ahead of the walk (-o pipeline=N).
//
// The walk takes its answers one at a time in document order, and each
// answer decides which requests come next. PipelinedSource keeps those two
// orders apart: a planner follows the answers as they arrive, works out from
// each one the requests the walk will make below it (the re-selects of the
// children it will visit, the ".!" fallback when ".! > ." finds nothing, the
// MIB selection of a whole-database export, the history series of an object
// that will be written) and sends them, earliest in document order first,
// while the walk consumes the answers strictly in document order. The
// planner reaches every decision through the walk's rules
// (porter/walk_rules.h), applied to siblings in walk order with their own
// set of names, so it never asks below an object the walk will drop. The
// document, the messages and the failures are therefore those of the
// sequential walk:
//  - a failure that comes from the data (an object that vanished, a missing
//    siblingName, an answer that cannot be decoded, ...) is raised when the
//    walk takes the failing answer, after everything before it was written;
//  - a transport failure is raised when it is met, which may be earlier than
//    the sequential walk would have met it; what was written is then a
//    prefix of the complete document. A request that cannot be written
//    (the server has gone) is not reported by itself: reading goes on until
//    the connection's end is met, as sequentially.
//
// Bounded memory: at most N requests are outstanding, and requests are sent
// ahead of the walk only while fewer than 2N are outstanding or answered but
// not yet taken by the walk, or fewer than 4N for a request that comes before
// one already sent in document order (so that an object's children are not
// starved by the held answers of its later siblings); the request the walk
// is waiting for is sent even then, so at most 4N + 1 answers are ever held. Besides those answers the
// planner keeps, for each object whose subtree is still being walked, the id
// and class of the children it has yet to visit, as the sequential walk
// keeps its parents' results: nothing grows with the size of the database.
//
// Should the walk ever ask for something the plan did not foresee, the source
// drops its plan and serves every later request sequentially (counted in
// PipelineStats::abandoned); answers still on their way are then ignored.
//
// Single-threaded, like the Session it uses.
#ifndef TALVIX_PORTER_PIPELINED_SOURCE_H_
#define TALVIX_PORTER_PIPELINED_SOURCE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "porter/walk_source.h"

namespace client {
class Session;
}

namespace porter {

// What a PipelinedSource did, for tests and measurements.
struct PipelineStats {
  uint64_t sent = 0;             // requests sent
  uint64_t taken = 0;            // answers handed out (sent and taken match after a full walk)
  uint32_t peakOutstanding = 0;  // most requests sent and not yet answered at once
  uint32_t peakHeld = 0;         // most answers received and not yet handed out at once
  uint32_t peakAhead = 0;        // most requests sent and not yet handed out at once
  uint64_t abandoned = 0;        // times the walk asked for something unplanned
};

class PipelinedSource : public WalkSource {
 public:
  // Keeps at most `depth` (1..4096) requests outstanding on `session`.
  // `session` and `settings` (those of the walk) must outlive the source;
  // `stats`, when given, is updated as the source works and must outlive it.
  PipelinedSource(client::Session& session, uint32_t depth, const WalkSettings& settings,
                  PipelineStats* stats = nullptr);
  PipelinedSource(const PipelinedSource&) = delete;
  PipelinedSource& operator=(const PipelinedSource&) = delete;
  // Requests still outstanding stay in the session's tables; their answers
  // are dropped when they arrive.
  ~PipelinedSource() override;

  // Until walk_starts() each request is sent and awaited on its own. Then
  // the answers come in the planned order; a request the plan did not foresee
  // abandons the plan (see above). Transport failures are raised where they
  // are met; a request's own failure (its answer cannot be decoded) is raised
  // when that request is taken.
  std::shared_ptr<client::Request> take(const WalkRequest& request) override;
  // Starts planning the walk of `root` and sends the first requests.
  void walk_starts(const Visit& root) override;

 private:
  class Planner;
  std::unique_ptr<Planner> planner_;
};

}  // namespace porter

#endif  // TALVIX_PORTER_PIPELINED_SOURCE_H_

// Where the walk gets its answers.
//
// The walk never sends a request itself: it asks its WalkSource for the
// answer it needs next. The sequential source sends each request and waits
// for it; the pipelined source (porter/pipelined_source.h) may have asked
// ahead. Either way the walk alone decides what is written and in which
// order.
#ifndef TALVIX_PORTER_WALK_SOURCE_H_
#define TALVIX_PORTER_WALK_SOURCE_H_

#include <memory>

#include "porter/walk_rules.h"

namespace client {
class GetData;
class Select;
class Session;
}  // namespace client

namespace porter {

class WalkSource {
 public:
  virtual ~WalkSource() = default;
  // The answered request for `request` (a client::Select, or a
  // client::GetData for RequestKind::kHistory), or one that failed with a
  // server error code in its `error`. The caller holds the returned reference
  // as long as it reads the results. Transport and decoding failures are
  // thrown.
  virtual std::shared_ptr<client::Request> take(const WalkRequest& request) = 0;
  // The walk of `root` (already admitted) begins; its requests follow in
  // document order. Nothing to do for a source that does not plan ahead.
  virtual void walk_starts(const Visit& root) { (void)root; }

  // take() with the answer's type.
  std::shared_ptr<client::Select> select(const WalkRequest& request);
  std::shared_ptr<client::GetData> history(const WalkRequest& request);
};

// Sends every request and awaits it before the next one is made.
class SequentialSource : public WalkSource {
 public:
  // `session` must outlive the source.
  explicit SequentialSource(client::Session& session) : session_(session) {}
  std::shared_ptr<client::Request> take(const WalkRequest& request) override;

 private:
  client::Session& session_;
};

}  // namespace porter

#endif  // TALVIX_PORTER_WALK_SOURCE_H_

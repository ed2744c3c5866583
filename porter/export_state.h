// The state of the running export that the driver sets up and the object
// tree walk reads, and the source through which the walk asks the server.
//
// The walk never sends a request itself: it asks its WalkSource for the
// answer it needs next. The sequential source sends each request and waits
// for it; a pipelined source may have asked ahead. Either way the walk alone
// decides what is written and in which order.
#ifndef TALVIX_PORTER_EXPORT_STATE_H_
#define TALVIX_PORTER_EXPORT_STATE_H_

#include <iosfwd>
#include <memory>
#include <string>

#include "porter/class_filter.h"

namespace client {
class Select;
class Session;
}  // namespace client
namespace client {
class GetData;
}

namespace porter {

// Classes that are never exported unless they lie below a class named with
// "+" in -I.
inline constexpr char DEFAULT_IGNORED_CLASSES[] =
    "ClusterConfig,ReportSelection,NetworkScan,NetworkScanWork,SnmpScan,NotificationJob,"
    "ForecastModel";

// Where the walk gets its answers. Each call returns a request that has been
// answered (or failed with a server error code in its `error`); the caller
// holds the returned reference until it is done with the results. Transport
// and decoding failures are thrown.
class WalkSource {
 public:
  virtual ~WalkSource() = default;
  // A select of `pattern` from `startId`.
  virtual std::shared_ptr<client::Select> select(const std::string& startId,
                                                 const std::string& pattern) = 0;
  // The stored history of one index property of one object.
  virtual std::shared_ptr<client::GetData> history(const std::string& objectId,
                                                   const std::string& indexName) = 0;
};

// Sends every request and awaits it before the next one is made.
class SequentialSource : public WalkSource {
 public:
  // `session` must outlive the source.
  explicit SequentialSource(client::Session& session) : session_(session) {}
  std::shared_ptr<client::Select> select(const std::string& startId,
                                         const std::string& pattern) override;
  std::shared_ptr<client::GetData> history(const std::string& objectId,
                                           const std::string& indexName) override;

 private:
  client::Session& session_;
};

// What the walk reports as it goes, in walk order. The default (progress_marks())
// writes the familiar marks to the error stream; a live display counts instead.
class WalkEvents {
 public:
  virtual ~WalkEvents() = default;
  virtual void domain_started(const std::string& treeLabel) = 0;
  virtual void object_started() = 0;  // an object that is not a domain
  // One history series of `objectId` is about to be asked for.
  virtual void history_started(const std::string& objectId) = 0;
  virtual void histories_done() = 0;  // after the last series of one object
  virtual void domain_done() = 0;
};

// The marks written to *export_state().err at the time of each call:
// "\nExporting domain <label>", "." per object, "\nExporting statistical data
// (<id>). Please wait." per series, and a line end after an object's series and
// after each domain. Lives for the whole process.
WalkEvents& progress_marks();

struct ExportState {
  client::Session* session = nullptr;  // the logged-in session of the run
  WalkSource* source = nullptr;   // how the walk reaches the session
  ClassFilter filter;             // included, ignored, includedWithSubtree
  bool history = true;            // false with -c
  std::ostream* err = nullptr;    // notices (std::cerr)
  WalkEvents* events = nullptr;   // never null once export_state() returned: progress_marks()
};

// The process-wide state of the running export.
ExportState& export_state();

// A stream for the export's notices that writes, unbuffered, to whatever
// *export_state().err is at the time of each write, so that an exporter made
// before the export reaches the stream the export installs. Lives for the
// whole process.
std::ostream& export_notices();

}  // namespace porter

#endif  // TALVIX_PORTER_EXPORT_STATE_H_

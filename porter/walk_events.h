// What the walk reports as it goes, and the progress marks that report it.
#ifndef TALVIX_PORTER_WALK_EVENTS_H_
#define TALVIX_PORTER_WALK_EVENTS_H_

#include <ostream>
#include <string>

namespace porter {

// The walk's progress, in walk order. The default (ProgressMarks) writes the
// familiar marks to the error stream; a live display counts instead, and
// NoProgressMarks drops them.
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

// Writes to `err` at the time of each call: "\nExporting domain <label>",
// "." per object, "\nExporting statistical data (<id>). Please wait." per
// series (flushed), and a line end after an object's series and after each
// domain. `err` must outlive the marks.
class ProgressMarks : public WalkEvents {
 public:
  explicit ProgressMarks(std::ostream& err) : err_(err) {}
  void domain_started(const std::string& treeLabel) override {
    err_ << "\nExporting domain " << treeLabel;
  }
  void object_started() override { err_ << "."; }
  void history_started(const std::string& objectId) override {
    err_ << std::endl << "Exporting statistical data (" << objectId << "). Please wait."
         << std::flush;
  }
  void histories_done() override { err_ << std::endl; }
  void domain_done() override { err_ << std::endl; }

 private:
  std::ostream& err_;
};

// No marks at all (-o quiet=1): every event is dropped.
class NoProgressMarks : public WalkEvents {
 public:
  void domain_started(const std::string&) override {}
  void object_started() override {}
  void history_started(const std::string&) override {}
  void histories_done() override {}
  void domain_done() override {}
};

}  // namespace porter

#endif  // TALVIX_PORTER_WALK_EVENTS_H_

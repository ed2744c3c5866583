// A live progress display of a running export (-o progress=1).
//
// ProgressDisplay takes the walk's events in place of the dots and the
// "Exporting ..." lines and shows what the export has done so far: objects,
// history series, requests per second, document bytes and elapsed time. On a
// terminal one line is redrawn in place ("\r" + line, padded with blanks over
// the previous one) at most every kTerminalInterval; elsewhere a plain line is
// written at most every kPlainInterval. finish() writes the totals.
//
// ProgressScope chooses, for one export, between a display and the walk's
// marks.
#ifndef TALVIX_PORTER_PROGRESS_H_
#define TALVIX_PORTER_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "porter/extra_settings.h"
#include "porter/held_error_stream.h"
#include "porter/out_stream.h"
#include "porter/walk_events.h"
#include "porter/walk_source.h"

namespace porter {

class ProgressDisplay : public WalkEvents {
 public:
  using Clock = std::chrono::steady_clock;
  using ClockFunction = std::function<Clock::time_point()>;

  static constexpr std::chrono::milliseconds kTerminalInterval{200};
  static constexpr std::chrono::milliseconds kPlainInterval{5000};

  // Writes to `out`, which must outlive the display; `terminal` selects
  // in-place redrawing. `clock` is asked for the time at every event; the
  // display's elapsed time starts at construction.
  ProgressDisplay(std::ostream& out, bool terminal, ClockFunction clock = Clock::now);
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  // Ends a line that is still being redrawn, so that later messages (an
  // error after a failed export) start on a line of their own.
  ~ProgressDisplay() override;

  void domain_started(const std::string& treeLabel) override;
  void object_started() override;
  void history_started(const std::string& objectId) override;
  void histories_done() override {}
  void domain_done() override {}

  // One answered request; `count` bytes of the document written.
  void request_answered();
  void bytes_written(uint64_t count);

  // A stream for other messages of the export (notices such as "(ignoring
  // date less than zero)"): their text goes to `out` unchanged, on a line of
  // its own when the display was drawing one. Valid as long as the display.
  std::ostream& notices();
  // Writes `line` and a line end as a notice, on a line of its own whatever
  // was written before.
  void notice_line(const std::string& line);

  // Writes the line with the totals and ends it. Events after this are
  // counted but not drawn.
  void finish();

 private:
  class NoticeBuffer;

  void tick();
  void draw(const std::string& line, bool final);
  void notice(const char* text, size_t length);
  std::string live_line(Clock::time_point now) const;
  std::string total_line(Clock::time_point now) const;

  std::ostream& out_;
  const bool terminal_;
  const ClockFunction clock_;
  const Clock::time_point start_;
  Clock::time_point lastDraw_;
  uint64_t requestsAtLastDraw_ = 0;
  uint64_t objects_ = 0;
  uint64_t series_ = 0;
  uint64_t requests_ = 0;
  uint64_t bytes_ = 0;
  size_t drawnLength_ = 0;   // length of the line being redrawn
  bool lineOpen_ = false;    // a redrawn line without its line end is showing
  bool atLineStart_ = false; // the last text written to out_ ended a line
  bool finished_ = false;
  std::unique_ptr<NoticeBuffer> noticeBuffer_;
  std::unique_ptr<std::ostream> notices_;
};

// "1234 B", "12.1 KiB", "3.4 MiB", "1.2 GiB".
std::string format_bytes(uint64_t bytes);
// "H:MM:SS" of whole seconds.
std::string format_elapsed(std::chrono::nanoseconds elapsed);

// The progress of one export, as `mode` asks: a live display; the walk's
// progress marks on the error stream, held back (HeldErrorStream) until
// release(), a notice, 100 ms, or the end of the scope; or no marks at all.
// The notices reach `err` in every mode.
class ProgressScope {
 public:
  // `err` must outlive the scope.
  // `lineOpen`: text before the scope left a line of `err` unfinished.
  ProgressScope(ProgressMode mode, std::ostream& err, bool terminal, bool lineOpen = false);
  ProgressScope(const ProgressScope&) = delete;
  ProgressScope& operator=(const ProgressScope&) = delete;
  ~ProgressScope();

  // Where the walk reports: the display, the marks or nothing. Valid as long
  // as the scope.
  WalkEvents& events();
  // Where the export's notices go: the display's notice stream, or `err`
  // after the marks held so far.
  std::ostream& notices();
  // Writes `line` on a line of its own among the notices.
  void report_line(const std::string& line);
  // Writes out the marks held so far; the export calls it before it waits.
  void release();
  // A source that counts the answers of `source` for the display, or
  // `source` itself; `source` must outlive the scope, and so does the result.
  WalkSource& watch(WalkSource& source);
  // A stream that counts the bytes written to `stream` for the display, or
  // `stream` itself; `stream` must outlive the scope, and so does the result.
  OutStream& watch(OutStream& stream);
  // Writes the totals line (nothing without a display).
  void finish();

 private:
  class CountingSource;
  class CountingStream;

  HeldErrorStream held_;
  ProgressMarks marks_;
  NoProgressMarks noMarks_;
  const bool quiet_;
  std::unique_ptr<ProgressDisplay> display_;
  std::unique_ptr<CountingSource> source_;
  std::unique_ptr<CountingStream> stream_;
};

}  // namespace porter

#endif  // TALVIX_PORTER_PROGRESS_H_

#include "porter/progress.h"

#include <cstdio>
#include <streambuf>
#include <utility>

#include "client/get_data.h"
#include "client/select.h"

namespace porter {

// Hands every text written to the notice stream to the display unbuffered,
// so that it lands in order with the display's own lines.
class ProgressDisplay::NoticeBuffer : public std::streambuf {
 public:
  explicit NoticeBuffer(ProgressDisplay& display) : display_(display) {}

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char ch = traits_type::to_char_type(c);
    display_.notice(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    if (count > 0) display_.notice(text, static_cast<size_t>(count));
    return count;
  }
  int sync() override {
    display_.out_.flush();
    return 0;
  }

 private:
  ProgressDisplay& display_;
};

ProgressDisplay::ProgressDisplay(std::ostream& out, bool terminal, ClockFunction clock)
    : out_(out), terminal_(terminal), clock_(std::move(clock)), start_(clock_()),
      lastDraw_(start_), noticeBuffer_(std::make_unique<NoticeBuffer>(*this)),
      notices_(std::make_unique<std::ostream>(noticeBuffer_.get())) {}

ProgressDisplay::~ProgressDisplay() {
  if (lineOpen_) out_ << '\n' << std::flush;
}

void ProgressDisplay::domain_started(const std::string&) {
  ++objects_;
  tick();
}

void ProgressDisplay::object_started() {
  ++objects_;
  tick();
}

void ProgressDisplay::history_started(const std::string&) {
  ++series_;
  tick();
}

void ProgressDisplay::request_answered() {
  ++requests_;
  tick();
}

void ProgressDisplay::bytes_written(uint64_t count) {
  bytes_ += count;
  tick();
}

std::ostream& ProgressDisplay::notices() { return *notices_; }

void ProgressDisplay::finish() {
  if (finished_) return;
  draw(total_line(clock_()), true);
  finished_ = true;
}

void ProgressDisplay::tick() {
  if (finished_) return;
  const Clock::time_point now = clock_();
  if (now - lastDraw_ < (terminal_ ? kTerminalInterval : kPlainInterval)) return;
  draw(live_line(now), false);
  lastDraw_ = now;
  requestsAtLastDraw_ = requests_;
}

void ProgressDisplay::draw(const std::string& line, bool final) {
  if (terminal_) {
    if (lineOpen_) {
      out_ << '\r';
    } else if (!atLineStart_) {
      out_ << '\n';
    }
    out_ << line;
    if (lineOpen_ && drawnLength_ > line.size()) out_ << std::string(drawnLength_ - line.size(), ' ');
    drawnLength_ = line.size();
    lineOpen_ = !final;
    if (final) out_ << '\n';
  } else {
    if (!atLineStart_) out_ << '\n';
    out_ << line << '\n';
  }
  atLineStart_ = !lineOpen_;
  out_.flush();
}

void ProgressDisplay::notice(const char* text, size_t length) {
  if (length == 0) return;
  if (lineOpen_) {
    out_ << '\n';
    lineOpen_ = false;
  }
  out_.write(text, static_cast<std::streamsize>(length));
  atLineStart_ = text[length - 1] == '\n';
}

void ProgressDisplay::notice_line(const std::string& line) {
  if (!lineOpen_ && !atLineStart_) out_ << '\n';
  notice(line.data(), line.size());
  notice("\n", 1);
  out_.flush();
}

namespace {

std::string rate_text(uint64_t count, std::chrono::nanoseconds span) {
  const double seconds = std::chrono::duration<double>(span).count();
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds > 0 ? static_cast<double>(count) / seconds : 0.0);
  return text;
}

}  // namespace

std::string ProgressDisplay::live_line(Clock::time_point now) const {
  return std::to_string(objects_) + " objects, " + std::to_string(series_) +
         " history series, " + rate_text(requests_ - requestsAtLastDraw_, now - lastDraw_) +
         " requests/s, " + format_bytes(bytes_) + " written, " + format_elapsed(now - start_);
}

std::string ProgressDisplay::total_line(Clock::time_point now) const {
  return "Total: " + std::to_string(objects_) + " objects, " + std::to_string(series_) +
         " history series, " + std::to_string(requests_) + " requests (" +
         rate_text(requests_, now - start_) + "/s), " + format_bytes(bytes_) + " written in " +
         format_elapsed(now - start_);
}

std::string format_bytes(uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string format_elapsed(std::chrono::nanoseconds elapsed) {
  const long long total =
      elapsed.count() < 0 ? 0 : std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
  char text[32];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", total / 3600, total / 60 % 60, total % 60);
  return text;
}

class ProgressScope::CountingSource : public WalkSource {
 public:
  CountingSource(WalkSource& inner, ProgressDisplay& display) : inner_(inner), display_(display) {}

  std::shared_ptr<client::Request> take(const WalkRequest& request) override {
    std::shared_ptr<client::Request> answer = inner_.take(request);
    display_.request_answered();
    return answer;
  }
  void walk_starts(const Visit& root) override { inner_.walk_starts(root); }

 private:
  WalkSource& inner_;
  ProgressDisplay& display_;
};

class ProgressScope::CountingStream : public OutStream {
 public:
  CountingStream(OutStream& inner, ProgressDisplay& display) : inner_(inner), display_(display) {}

  CountingStream& write(const std::string& text) override {
    inner_.write(text);
    display_.bytes_written(text.size());
    return *this;
  }

 private:
  OutStream& inner_;
  ProgressDisplay& display_;
};

ProgressScope::ProgressScope(ProgressMode mode, std::ostream& err, bool terminal, bool lineOpen)
    : held_(err, HeldErrorStream::kInterval, HeldErrorStream::Clock::now, lineOpen),
      marks_(held_.marks()),
      quiet_(mode == ProgressMode::kQuiet) {
  if (mode == ProgressMode::kDisplay) display_ = std::make_unique<ProgressDisplay>(err, terminal);
}

ProgressScope::~ProgressScope() = default;

WalkEvents& ProgressScope::events() {
  if (display_ != nullptr) return *display_;
  if (quiet_) return noMarks_;
  return marks_;
}

std::ostream& ProgressScope::notices() {
  return display_ == nullptr ? held_.messages() : display_->notices();
}

void ProgressScope::report_line(const std::string& line) {
  if (display_ != nullptr) {
    display_->notice_line(line);
    return;
  }
  held_.messages() << (held_.lineOpen() ? "\n" : "") << line << '\n' << std::flush;
}

void ProgressScope::release() { held_.release(); }

WalkSource& ProgressScope::watch(WalkSource& source) {
  if (display_ == nullptr) return source;
  source_ = std::make_unique<CountingSource>(source, *display_);
  return *source_;
}

OutStream& ProgressScope::watch(OutStream& stream) {
  if (display_ == nullptr) return stream;
  stream_ = std::make_unique<CountingStream>(stream, *display_);
  return *stream_;
}

void ProgressScope::finish() {
  if (display_ != nullptr) display_->finish();
}

}  // namespace porter

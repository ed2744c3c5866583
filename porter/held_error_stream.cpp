#include "porter/held_error_stream.h"

#include <streambuf>
#include <utility>

namespace porter {

// Appends what its stream writes to the owner's held text; then writes out
// when that is due. Without a put area of its own, every write comes here.
class HeldErrorStream::Buffer : public std::streambuf {
 public:
  // `always`: write out after every write (the messages).
  Buffer(HeldErrorStream& owner, bool always) : owner_(owner), always_(always) {}

 protected:
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    owner_.held_.append(text, static_cast<size_t>(count));
    if (count > 0) owner_.lineOpen_ = text[count - 1] != '\n';
    due();
    return count;
  }
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    owner_.held_ += traits_type::to_char_type(c);
    owner_.lineOpen_ = traits_type::to_char_type(c) != '\n';
    due();
    return c;
  }
  // std::flush and std::endl: the text stays held.
  int sync() override { return 0; }

 private:
  void due() {
    if (always_ || owner_.clock_() - owner_.lastRelease_ >= owner_.interval_) owner_.release();
  }

  HeldErrorStream& owner_;
  const bool always_;
};

HeldErrorStream::HeldErrorStream(std::ostream& err, std::chrono::milliseconds interval,
                                 ClockFunction clock, bool lineOpen)
    : err_(err),
      interval_(interval),
      clock_(std::move(clock)),
      lastRelease_(clock_()),
      lineOpen_(lineOpen),
      marksBuffer_(std::make_unique<Buffer>(*this, false)),
      messagesBuffer_(std::make_unique<Buffer>(*this, true)),
      marks_(std::make_unique<std::ostream>(marksBuffer_.get())),
      messages_(std::make_unique<std::ostream>(messagesBuffer_.get())) {}

HeldErrorStream::~HeldErrorStream() { release(); }

void HeldErrorStream::release() {
  lastRelease_ = clock_();
  if (held_.empty()) return;
  err_ << held_;
  err_.flush();
  held_.clear();
}

}  // namespace porter

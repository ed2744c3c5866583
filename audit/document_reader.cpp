#include "audit/document_reader.h"

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "audit/document_input.h"
#include "audit/faults.h"
#include "audit/value_syntax.h"

namespace audit {

namespace {

constexpr size_t kPiece = 1 << 16;  // grows for longer lines

// The bytes an attribute value holds as they are: blank and 33..126 except
// '"', '<', '>' and '&'; every other byte is written as a reference.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> table{};
  for (int c = 32; c < 127; ++c) table[c] = c != '"' && c != '<' && c != '>' && c != '&';
  return table;
}();

enum class RowKind : uint8_t { kMeasure, kEnum, kIncident };

struct Datatype {
  std::string_view name;
  RowKind rows;
};
constexpr Datatype kDatatypes[] = {{"sawtooth", RowKind::kMeasure},
                                   {"enum", RowKind::kEnum},
                                   {"incidents", RowKind::kIncident},
                                   {"continuous", RowKind::kMeasure},
                                   {"accumulation", RowKind::kMeasure}};

// An open Object element: an object in one of its three sections, or a series.
enum class Section : uint8_t { kProperties, kSeries, kChildren, kRows };
struct Open {
  Section section;
  RowKind rows;
};

// Splits the input into lines, each with its line feed or, at the end, without.
class LineSplitter {
 public:
  explicit LineSplitter(DocumentInput& input) : input_(input), buffer_(kPiece) {}

  // The next line without its line feed; false at the end. `terminated`
  // tells whether it had one. Throws Fault for a line reaching kMaxLineBytes
  // and what the input throws, with `offset` and `line` of the reader.
  bool next(std::string_view& line, bool& terminated) {
    for (;;) {
      const char* newline =
          static_cast<const char*>(std::memchr(buffer_.data() + scanFrom_, '\n', end_ - scanFrom_));
      if (newline != nullptr) {
        const size_t length = static_cast<size_t>(newline - (buffer_.data() + begin_));
        line = std::string_view(buffer_.data() + begin_, length);
        begin_ += length + 1;
        scanFrom_ = begin_;
        terminated = true;
        return true;
      }
      scanFrom_ = end_;
      if (end_ - begin_ >= kMaxLineBytes) {
        throw Fault(0, kMaxLineBytes, "a line of " + std::to_string(kMaxLineBytes) + " bytes or more");
      }
      if (eof_) {
        if (begin_ == end_) return false;
        line = std::string_view(buffer_.data() + begin_, end_ - begin_);
        begin_ = end_;
        terminated = false;
        return true;
      }
      make_room();
      const size_t n = input_.read(buffer_.data() + end_, buffer_.size() - end_);
      if (n == 0) eof_ = true;
      end_ += n;
    }
  }

 private:
  void make_room() {
    if (begin_ > 0) {
      std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      scanFrom_ -= begin_;
      begin_ = 0;
    }
    if (end_ == buffer_.size()) buffer_.resize(buffer_.size() * 2);
  }

  DocumentInput& input_;
  std::vector<char> buffer_;
  size_t begin_ = 0, end_ = 0, scanFrom_ = 0;
  bool eof_ = false;
};

class Parser {
 public:
  Parser(DocumentInput& input, DocumentEvents& events) : lines_(input), events_(events) {}

  DocumentSummary run() {
    try {
      parse();
    } catch (Fault& fault) {
      if (fault.line == 0) {  // from the input: the position reached
        fault.line = lineNumber_;
        fault.offset += lineOffset_;
      }
      throw;
    }
    return {lineNumber_, nextOffset_};
  }

 private:
  // Any fault on a last line without its line feed is reported as the cut
  // it is (a cut line's start would pass).
  [[noreturn]] void fail(const char* at, const std::string& what) const {
    if (!terminated_) {
      throw Fault(lineNumber_, lineOffset_ + line_.size(), "the document ends inside a line (cut short)");
    }
    throw Fault(lineNumber_, lineOffset_ + static_cast<uint64_t>(at - line_.data()), what);
  }

  // A fault at the end of the document, after its last line feed.
  [[noreturn]] void fail_at_end(const std::string& what) const { throw Fault(lineNumber_ + 1, nextOffset_, what); }

  bool next_line() {
    std::string_view line;
    bool terminated = false;
    lineOffset_ = nextOffset_;
    ++lineNumber_;
    try {
      if (!lines_.next(line, terminated)) {
        --lineNumber_;
        return false;
      }
    } catch (Fault& fault) {
      fault.line = lineNumber_;
      fault.offset += lineOffset_;
      throw;
    }
    line_ = line;
    terminated_ = terminated;
    pos_ = line_.data();
    end_ = line_.data() + line_.size();
    nextOffset_ = lineOffset_ + line.size() + (terminated ? 1 : 0);
    return true;
  }

  // Consumes `text`, or fails at the first byte that differs.
  void expect(std::string_view text, const char* what) {
    for (size_t i = 0; i < text.size(); ++i) {
      if (pos_ + i == end_ || pos_[i] != text[i]) fail(pos_ + i, std::string("expected ") + what);
    }
    pos_ += text.size();
  }

  bool accept(std::string_view text) {
    if (static_cast<size_t>(end_ - pos_) < text.size() || std::memcmp(pos_, text.data(), text.size()) != 0) {
      return false;
    }
    pos_ += text.size();
    return true;
  }

  // An attribute value up to its closing quote, which is consumed; the
  // written text is returned.
  std::string_view value() {
    const char* start = pos_;
    for (;;) {
      while (pos_ != end_ && kPlain[static_cast<unsigned char>(*pos_)]) ++pos_;
      if (pos_ == end_) fail(pos_, "the line ends inside an attribute value");
      if (*pos_ == '"') break;
      if (*pos_ != '&') fail(pos_, "a byte an attribute value holds only as a reference (&#N;)");
      reference();
    }
    const std::string_view text(start, static_cast<size_t>(pos_ - start));
    ++pos_;
    return text;
  }

  // "&#N;" for a byte N that is written so: no other reference, no leading zero.
  void reference() {
    const char* start = pos_;
    if (end_ - pos_ < 4 || pos_[1] != '#') fail(start, "a reference other than &#N;");
    pos_ += 2;
    unsigned value = 0;
    const char* digits = pos_;
    while (pos_ != end_ && *pos_ >= '0' && *pos_ <= '9' && pos_ - digits < 3) value = value * 10 + static_cast<unsigned>(*pos_++ - '0');
    if (pos_ == digits || pos_ == end_ || *pos_ != ';' || value > 255 || (*digits == '0' && pos_ - digits > 1)) {
      fail(start, "a reference other than &#N; with N from 0 to 255");
    }
    if (kPlain[value]) fail(start, "a reference to a byte that is written as it is");
    ++pos_;
  }

  void end_of_line() {
    if (pos_ != end_) fail(pos_, "text after the end of the element");
    if (!terminated_) fail(pos_, "the document ends inside a line (cut short)");
  }

  void parse() {
    if (!next_line()) throw Fault(1, 0, "empty file");
    expect("<?xml version=\"1.0\"?>", "the XML declaration <?xml version=\"1.0\"?>");
    end_of_line();
    if (!next_line()) fail_at_end("the document ends before the Meta element (cut short)");
    expect("<Meta version=\"1.0\" description=\"Talvix exported database\" timestamp=\"",
           "the Meta start tag");
    const char* stamp = pos_;
    const std::string_view timestamp = value();
    if (!is_time(timestamp)) fail(stamp, "a timestamp other than YYYY-MM-DD-THH:MM:SS");
    expect(">", "'>'");
    end_of_line();
    events_.meta(timestamp);
    if (!next_line()) fail_at_end("the document ends before the Meta end tag (cut short)");
    expect("</Meta>", "the Meta end tag");
    if (pos_ == end_ && !terminated_) return;  // no object was exported
    if (!accept("<Object id=\"")) fail(pos_, "expected the export root's Object start tag or the end of the document");
    open_object(pos_ - 12);
    while (!stack_.empty()) {
      if (!next_line()) {
        fail_at_end("the document ends inside " + std::to_string(stack_.size()) +
                    " open Object elements (cut short)");
      }
      element();
    }
    if (next_line()) fail(pos_, "text after the end tag of the export root");
  }

  // One line inside the export root.
  void element() {
    const size_t depth = stack_.size();
    while (pos_ != end_ && *pos_ == ' ') ++pos_;
    const size_t blanks = static_cast<size_t>(pos_ - line_.data());
    if (accept("</Object>")) {
      if (blanks != 2 * (depth - 1)) fail(line_.data(), "indentation other than two blanks per level");
      end_of_line();
      stack_.pop_back();
      events_.close_object();
      return;
    }
    if (blanks != 2 * depth) fail(line_.data(), "indentation other than two blanks per level");
    Open& open = stack_.back();
    if (accept("<Property type=\"")) {
      if (open.section != Section::kProperties) fail(line_.data(), "a Property element after a history series, a child object or in a series");
      property();
    } else if (accept("<Data ")) {
      if (open.section != Section::kRows) fail(line_.data(), "a Data element outside a history series");
      row(open.rows);
    } else if (accept("<Object id=\"")) {
      if (open.section == Section::kRows) fail(line_.data(), "an Object element inside a history series");
      open_object(line_.data() + blanks);
    } else {
      fail(pos_, "expected an Object, Property or Data element or an Object end tag");
    }
  }

  void open_object(const char* tag) {
    const std::string_view id = value();
    expect(" type=\"", "the type attribute");
    const std::string_view type = value();
    if (accept(">")) {
      end_of_line();
      if (!stack_.empty()) stack_.back().section = Section::kChildren;
      stack_.push_back({Section::kProperties, RowKind::kMeasure});
      events_.open_object(id, type);
      return;
    }
    expect(" datatype=\"", "'>' or the datatype attribute");
    const char* at = pos_;
    const std::string_view datatype = value();
    expect(">", "'>'");
    end_of_line();
    if (type != "Data") fail(tag, "a datatype attribute on an Object element of a type other than Data");
    if (stack_.empty()) fail(tag, "a history series as the export root");
    const Datatype* known = nullptr;
    for (const Datatype& d : kDatatypes) {
      if (d.name == datatype) known = &d;
    }
    if (known == nullptr) fail(at, "an unknown datatype");
    if (stack_.back().section == Section::kChildren) fail(tag, "a history series after a child object");
    stack_.back().section = Section::kSeries;
    stack_.push_back({Section::kRows, known->rows});
    events_.open_series(id, datatype);
  }

  void property() {
    const char* at = pos_;
    const std::string_view type = value();
    if (!is_property_type(type)) fail(at, "a property type the exporter does not write");
    expect(" name=\"", "the name attribute");
    at = pos_;
    const std::string_view name = value();
    if (name.empty()) fail(at, "an empty property name");
    expect(" value=\"", "the value attribute");
    at = pos_;
    const std::string_view text = value();
    if (!is_property_value(type, text)) fail(at, "a value not written as the exporter writes its type");
    expect("/>", "'/>'");
    end_of_line();
    events_.property(type, name, text);
  }

  // The next attribute `name`="value", checked by `valid`.
  std::string_view attribute(std::string_view name, bool (*valid)(std::string_view), const char* what) {
    expect(name, "the next attribute of the row");
    const char* at = pos_;
    const std::string_view text = value();
    if (valid != nullptr && !valid(text)) fail(at, what);
    return text;
  }

  void row(RowKind kind) {
    const char* text = pos_ - 6;
    std::string_view first, last;
    if (kind == RowKind::kIncident) {
      first = last = attribute("time=\"", is_time, "a time other than YYYY-MM-DD-THH:MM:SS");
      attribute(" severity=\"", is_signed32, "a severity other than a 32-bit number");
      attribute(" message=\"", nullptr, "");
    } else {
      first = attribute("start=\"", is_time, "a time other than YYYY-MM-DD-THH:MM:SS");
      last = attribute(" end=\"", is_time, "a time other than YYYY-MM-DD-THH:MM:SS");
      if (compare_times(first, last) > 0) fail(text, "a row that ends before it starts");
      if (kind == RowKind::kMeasure) {
        attribute(" max=\"", is_real, "a number other than printf's %f");
        attribute(" avg=\"", is_real, "a number other than printf's %f");
        attribute(" min=\"", is_real, "a number other than printf's %f");
      } else {
        attribute(" mask=\"", is_mask_list, "a mask other than ascending bit numbers 0 to 31 joined with '.'");
      }
      attribute(" ngood=\"", is_unsigned32, "a count other than a 32-bit unsigned number");
      attribute(" nbad=\"", is_unsigned32, "a count other than a 32-bit unsigned number");
    }
    expect("/>", "'/>'");
    end_of_line();
    events_.row(std::string_view(text, static_cast<size_t>(end_ - text)), first, last);
  }

  LineSplitter lines_;
  DocumentEvents& events_;
  std::vector<Open> stack_;
  std::string_view line_;
  bool terminated_ = false;
  const char* pos_ = nullptr;
  const char* end_ = nullptr;
  uint64_t lineNumber_ = 0;
  uint64_t lineOffset_ = 0;
  uint64_t nextOffset_ = 0;
};

}  // namespace

DocumentSummary read_document(DocumentInput& input, DocumentEvents& events) {
  return Parser(input, events).run();
}

}  // namespace audit

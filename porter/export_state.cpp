#include "porter/export_state.h"

#include <iostream>
#include <streambuf>

#include "client/get_data.h"
#include "client/request.h"
#include "client/select.h"
#include "client/session.h"

namespace porter {

namespace {

// The parameters every history request of the export carries.
constexpr int32_t kFrom = 0;
constexpr int32_t kTo = 2147483647;
constexpr int32_t kStep = 1;
constexpr int32_t kLast = 0;

}  // namespace

std::shared_ptr<client::Select> SequentialSource::select(const std::string& startId,
                                                         const std::string& pattern) {
  auto request = std::make_shared<client::Select>(startId, pattern, 0);
  client::send(session_, request);
  client::await(session_, *request);
  return request;
}

std::shared_ptr<client::GetData> SequentialSource::history(const std::string& objectId,
                                                           const std::string& indexName) {
  auto request =
      std::make_shared<client::GetData>(objectId, indexName, kFrom, kTo, kStep, kLast, true);
  client::send(session_, request);
  client::await(session_, *request);
  return request;
}

namespace {

class ProgressMarks : public WalkEvents {
 public:
  void domain_started(const std::string& treeLabel) override {
    err() << "\nExporting domain " << treeLabel;
  }
  void object_started() override { err() << "."; }
  void history_started(const std::string& objectId) override {
    err() << std::endl << "Exporting statistical data (" << objectId << "). Please wait."
          << std::flush;
  }
  void histories_done() override { err() << std::endl; }
  void domain_done() override { err() << std::endl; }

 private:
  static std::ostream& err() { return *export_state().err; }
};

// Forwards every text to *export_state().err without holding any of it.
class NoticeForwarder : public std::streambuf {
 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    export_state().err->put(traits_type::to_char_type(c));
    return c;
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    export_state().err->write(text, count);
    return count;
  }
  int sync() override {
    export_state().err->flush();
    return 0;
  }
};

}  // namespace

std::ostream& export_notices() {
  static NoticeForwarder forwarder;
  static std::ostream stream(&forwarder);
  return stream;
}

WalkEvents& progress_marks() {
  static ProgressMarks marks;
  return marks;
}

ExportState& export_state() {
  static ExportState state{nullptr, nullptr, ClassFilter{}, true, &std::cerr, &progress_marks()};
  return state;
}

}  // namespace porter

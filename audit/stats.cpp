#include "audit/stats.h"

#include <iomanip>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "audit/document_input.h"
#include "audit/document_reader.h"
#include "audit/faults.h"
#include "audit/value_syntax.h"

namespace audit {

namespace {

struct SeriesCount {
  uint64_t series = 0;
  uint64_t rows = 0;
};

// Counts as the reader goes; memory grows with the number of classes and
// datatypes only.
class Counter : public DocumentEvents {
 public:
  void meta(std::string_view timestamp) override { timestamp_ = timestamp; }
  void open_object(std::string_view, std::string_view type) override {
    ++objects_;
    ++classes_[std::string(type)];
  }
  void open_series(std::string_view, std::string_view datatype) override {
    current_ = &history_[std::string(datatype)];
    ++current_->series;
  }
  void property(std::string_view, std::string_view, std::string_view) override { ++properties_; }
  void row(std::string_view, std::string_view first, std::string_view last) override {
    ++current_->rows;
    if (first_.empty() || compare_times(first, first_) < 0) first_ = first;
    if (last_.empty() || compare_times(last, last_) > 0) last_ = last;
  }

  nlohmann::ordered_json summary(const DocumentSummary& document, DocumentInput& input) const {
    static const char* const kContainers[] = {"plain", "gzip", "zstd"};
    nlohmann::ordered_json j;
    j["timestamp"] = timestamp_;
    j["container"] = kContainers[static_cast<int>(input.container())];
    j["fileBytes"] = input.file_bytes();
    j["documentBytes"] = document.bytes;
    j["lines"] = document.lines;
    j["objects"] = objects_;
    j["classes"] = nlohmann::ordered_json::object();
    for (const auto& [name, count] : classes_) j["classes"][name] = count;
    j["properties"] = properties_;
    j["history"] = nlohmann::ordered_json::object();
    for (const auto& [name, count] : history_) {
      j["history"][name] = {{"series", count.series}, {"rows", count.rows}};
    }
    j["firstHistoryTime"] = first_.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(first_);
    j["lastHistoryTime"] = last_.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(last_);
    return j;
  }

 private:
  std::string timestamp_, first_, last_;
  uint64_t objects_ = 0, properties_ = 0;
  std::map<std::string, uint64_t> classes_;
  std::map<std::string, SeriesCount> history_;
  SeriesCount* current_ = nullptr;
};

std::string text_of(const nlohmann::ordered_json& value) {
  return value.is_string() ? value.get<std::string>() : value.is_null() ? "-" : value.dump();
}

void print_table(const nlohmann::ordered_json& j, std::ostream& out) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (const char* key : {"timestamp", "container", "fileBytes", "documentBytes", "lines", "objects"}) {
    rows.emplace_back(key, text_of(j[key]));
  }
  for (const auto& [name, count] : j["classes"].items()) rows.emplace_back("  " + name, text_of(count));
  rows.emplace_back("properties", text_of(j["properties"]));
  rows.emplace_back("history", "series rows");
  for (const auto& [name, count] : j["history"].items()) {
    rows.emplace_back("  " + name, text_of(count["series"]) + " " + text_of(count["rows"]));
  }
  rows.emplace_back("firstHistoryTime", text_of(j["firstHistoryTime"]));
  rows.emplace_back("lastHistoryTime", text_of(j["lastHistoryTime"]));
  size_t width = 0;
  for (const auto& row : rows) width = std::max(width, row.first.size());
  for (const auto& [name, value] : rows) {
    out << std::left << std::setw(static_cast<int>(width + 2)) << name << value << '\n';
  }
}

}  // namespace

int print_stats(const std::string& file, bool json, std::ostream& out, std::ostream& err) {
  try {
    DocumentInput input(file);
    Counter counter;
    DocumentSummary document;
    try {
      document = read_document(input, counter);
    } catch (const Fault& fault) {
      err << fault_text(file, fault) << '\n';
      return 1;
    }
    const nlohmann::ordered_json summary = counter.summary(document, input);
    if (json) {
      out << summary.dump() << '\n';
    } else {
      print_table(summary, out);
    }
    out.flush();
    return 0;
  } catch (const Trouble& trouble) {
    err << "talvix-audit: " << trouble.what() << '\n';
    return 2;
  }
}

}  // namespace audit

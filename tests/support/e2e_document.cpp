#include "support/e2e_document.h"

#include <stdexcept>

namespace support {

namespace {

struct Span {
  size_t begin, end;  // [begin, end) of the document
};

Span find_element(const std::string& document, const std::string& id) {
  const std::string start = "<Object id=\"" + id + "\" ";
  const size_t at = document.find(start);
  if (at == std::string::npos) throw std::runtime_error("no element " + id + " in the document");
  const size_t lineBegin = at == 0 ? 0 : document.rfind('\n', at - 1) + 1;  // npos + 1 is 0
  const std::string endLine = "\n" + std::string(at - lineBegin, ' ') + "</Object>\n";
  const size_t endAt = document.find(endLine, at);
  if (endAt == std::string::npos) throw std::runtime_error("element " + id + " is not closed");
  return {lineBegin, endAt + endLine.size()};
}

}  // namespace

std::string mask_timestamp(const std::string& document, std::time_t earliest,
                           std::time_t latest, std::string& problem) {
  const std::string head = "timestamp=\"";
  const size_t at = document.find(head);
  if (at == std::string::npos) return document;
  const size_t valueAt = at + head.size();
  const size_t valueEnd = document.find('"', valueAt);
  const std::string value = document.substr(valueAt, valueEnd - valueAt);
  bool timeOfTheRun = false;
  for (std::time_t t = earliest; t <= latest; ++t) {
    std::tm utc{};
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d-T%H:%M:%S", gmtime_r(&t, &utc));
    timeOfTheRun = timeOfTheRun || value == text;
  }
  if (!timeOfTheRun) problem = "timestamp \"" + value + "\" is not the time of the run as YYYY-MM-DD-THH:MM:SS";
  return document.substr(0, valueAt) + "TIMESTAMP" + document.substr(valueEnd);
}

std::string element(const std::string& document, const std::string& id) {
  const Span s = find_element(document, id);
  return document.substr(s.begin, s.end - s.begin);
}

std::string without(const std::string& document, const std::vector<std::string>& ids) {
  std::string result = document;
  for (const std::string& id : ids) {
    const Span s = find_element(result, id);
    result.erase(s.begin, s.end - s.begin);
  }
  return result;
}

std::string insert_after(const std::string& document, const std::string& id,
                         const std::string& lines) {
  const Span s = find_element(document, id);
  return document.substr(0, s.end) + lines + document.substr(s.end);
}

}  // namespace support

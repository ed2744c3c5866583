#include "support/e2e_document.h"

#include <cstdio>
#include <stdexcept>

namespace support {

namespace {

struct Span {
  size_t begin, end;  // [begin, end) of the document
};

Span find_element(const std::string& document, const std::string& id) {
  const std::string start = "<Object id=\"" + id + "\" ";
  size_t at = document.find(start);
  if (at == std::string::npos) throw std::runtime_error("no element " + id + " in the document");
  size_t lineBegin = document.rfind('\n', at);
  lineBegin = lineBegin == std::string::npos ? 0 : lineBegin + 1;
  const size_t indent = at - lineBegin;
  if (document.find_first_not_of(' ', lineBegin) != at) {
    throw std::runtime_error("element " + id + " does not start its line");
  }
  const std::string endLine = "\n" + std::string(indent, ' ') + "</Object>\n";
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
  if (valueEnd == std::string::npos) {
    problem = "the timestamp attribute is not closed";
    return document;
  }
  const std::string value = document.substr(valueAt, valueEnd - valueAt);
  const std::string form = "dddd-dd-dd-Tdd:dd:dd";
  bool shaped = value.size() == form.size();
  for (size_t i = 0; shaped && i < form.size(); ++i) {
    shaped = form[i] == 'd' ? (value[i] >= '0' && value[i] <= '9') : value[i] == form[i];
  }
  if (!shaped) {
    problem = "timestamp \"" + value + "\" is not of the form YYYY-MM-DD-THH:MM:SS";
  } else {
    std::tm t{};
    std::sscanf(value.c_str(), "%4d-%2d-%2d-T%2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                &t.tm_hour, &t.tm_min, &t.tm_sec);
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    const std::time_t seconds = timegm(&t);
    if (seconds < earliest || seconds > latest) {
      problem = "timestamp \"" + value + "\" is not the time of the run";
    }
  }
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

std::string dedent(const std::string& lines, size_t blanks) {
  std::string result;
  size_t at = 0;
  while (at < lines.size()) {
    size_t end = lines.find('\n', at);
    end = end == std::string::npos ? lines.size() : end + 1;
    if (lines.compare(at, blanks, std::string(blanks, ' ')) != 0) {
      throw std::runtime_error("line not indented by " + std::to_string(blanks));
    }
    result.append(lines, at + blanks, end - at - blanks);
    at = end;
  }
  return result;
}

}  // namespace support

#include "audit/diff.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "audit/document_input.h"
#include "audit/document_reader.h"
#include "audit/faults.h"

namespace audit {

namespace {

constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

// FNV-1a, over the rows of a series.
uint64_t hash_more(uint64_t hash, std::string_view text) {
  for (unsigned char c : text) hash = (hash ^ c) * 1099511628211u;
  return (hash ^ '\n') * 1099511628211u;
}
constexpr uint64_t kHashStart = 14695981039346656037u;

// A piece of the arena of the old document.
struct Span {
  uint64_t offset = 0;
  uint64_t size = 0;
};

struct OldSeries {
  Span id;
  uint64_t hash = kHashStart;
  uint64_t rows = 0;
};

struct OldObject {
  Span id, type;
  uint32_t occurrence = 1;
  uint32_t parent = kNone;
  uint32_t nextSameId = kNone;
  Span properties;  // "type\0name\0value\0" after each other
  uint32_t firstSeries = 0, seriesCount = 0;
  bool matched = false;
};

struct Property {
  std::string_view type, name, value;
};

// Where an object sits: the id and occurrence of its parent; empty id and 0
// for the export root.
struct Place {
  std::string id;
  uint32_t occurrence = 0;
  bool operator==(const Place&) const = default;
};

// The old document, kept whole but for its history rows, which only leave
// a hash and a count per series.
class OldDocument : public DocumentEvents {
 public:
  explicit OldDocument(const DiffOptions& options) : options_(options) {}

  void open_object(std::string_view id, std::string_view type) override {
    OldObject object;
    object.id = add(id);
    object.type = add(type);
    object.parent = open_.empty() ? kNone : open_.back();
    object.properties.offset = arena_.size();
    const uint32_t index = static_cast<uint32_t>(objects_.size());
    auto [chain, fresh] = byId_.try_emplace(std::string(id), std::pair{index, index});
    if (!fresh) {
      object.occurrence = objects_[chain->second.second].occurrence + 1;
      objects_[chain->second.second].nextSameId = index;
      chain->second.second = index;
    }
    objects_.push_back(object);
    open_.push_back(index);
  }
  void property(std::string_view type, std::string_view name, std::string_view value) override {
    if (options_.ignored.count(name) != 0) return;
    for (std::string_view part : {type, name, value}) {
      arena_.append(part);
      arena_ += '\0';
    }
    OldObject& object = objects_[open_.back()];
    object.properties.size = arena_.size() - object.properties.offset;
  }
  void open_series(std::string_view id, std::string_view) override {
    OldObject& object = objects_[open_.back()];
    if (object.seriesCount++ == 0) object.firstSeries = static_cast<uint32_t>(series_.size());
    series_.push_back({add(id)});
    open_.push_back(kNone);
  }
  void row(std::string_view text, std::string_view, std::string_view) override {
    if (!options_.history) return;
    series_.back().hash = hash_more(series_.back().hash, text);
    ++series_.back().rows;
  }
  void close_object() override { open_.pop_back(); }

  std::string_view text(Span span) const { return std::string_view(arena_).substr(span.offset, span.size); }

  // The object of `id` with that occurrence, or kNone.
  uint32_t find(const std::string& id, uint32_t occurrence) const {
    const auto chain = byId_.find(id);
    if (chain == byId_.end()) return kNone;
    uint32_t index = chain->second.first;
    while (index != kNone && objects_[index].occurrence != occurrence) index = objects_[index].nextSameId;
    return index;
  }

  Place place(uint32_t index) const {
    const uint32_t parent = objects_[index].parent;
    if (parent == kNone) return {};
    return {std::string(text(objects_[parent].id)), objects_[parent].occurrence};
  }

  std::vector<Property> properties(uint32_t index) const {
    std::vector<Property> list;
    std::string_view rest = text(objects_[index].properties);
    while (!rest.empty()) {
      std::string_view part[3];
      for (auto& p : part) {
        const size_t end = rest.find('\0');
        p = rest.substr(0, end);
        rest.remove_prefix(end + 1);
      }
      list.push_back({part[0], part[1], part[2]});
    }
    return list;
  }

  std::vector<OldObject> objects_;
  std::vector<OldSeries> series_;

 private:
  Span add(std::string_view text) {
    const Span span{arena_.size(), text.size()};
    arena_.append(text);
    return span;
  }

  const DiffOptions& options_;
  std::string arena_;
  std::unordered_map<std::string, std::pair<uint32_t, uint32_t>> byId_;  // first and last of an id
  std::vector<uint32_t> open_;  // the open objects; kNone for a series
};

// Writes the records, as text lines or JSON Lines.
class Report {
 public:
  Report(const DiffOptions& options, std::ostream& out) : json_(options.json), out_(out) {}

  struct Subject {
    std::string_view id;
    uint32_t occurrence;
    std::string_view type;
  };

  void added_or_removed(bool added, const Subject& s, const Place& parent) {
    auto j = head(added ? "added" : "removed", s);
    if (parent.occurrence != 0) j["parent"] = parent.id;
    if (parent.occurrence > 1) j["parentOccurrence"] = parent.occurrence;
    write(j, std::string(added ? "+ " : "- ") + subject(s) +
                 (parent.occurrence == 0 ? "" : " in " + shown(parent.id, parent.occurrence)));
  }
  void moved(const Subject& s, const Place& from, const Place& to) {
    auto j = head("moved", s);
    j["from"] = from.occurrence == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(from.id);
    j["to"] = to.occurrence == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(to.id);
    write(j, "> " + subject(s) + " from " + place_text(from) + " to " + place_text(to));
  }
  void class_changed(const Subject& s, std::string_view from) {
    auto j = head("class", s);
    j["from"] = from;
    j["to"] = s.type;
    write(j, "~ " + subject(s) + " class " + std::string(from) + " -> " + std::string(s.type));
  }
  void property(const Subject& s, std::string_view name, const Property* from, const Property* to) {
    auto j = head("property", s);
    j["name"] = name;
    j["from"] = value_json(from);
    j["to"] = value_json(to);
    write(j, "~ " + subject(s) + " property " + std::string(name) + ": " + value_text(from) + " -> " +
                 value_text(to));
  }
  void history(const Subject& s, std::string_view name, std::optional<uint64_t> from,
               std::optional<uint64_t> to) {
    auto j = head("history", s);
    j["name"] = name;
    j["from"] = from ? nlohmann::ordered_json(*from) : nlohmann::ordered_json();
    j["to"] = to ? nlohmann::ordered_json(*to) : nlohmann::ordered_json();
    auto rows = [](std::optional<uint64_t> n) { return n ? std::to_string(*n) + " rows" : std::string("(none)"); };
    write(j, "~ " + subject(s) + " history " + std::string(name) + ": " + rows(from) + " -> " + rows(to));
  }

  uint64_t count() const { return count_; }

 private:
  static std::string shown(std::string_view id, uint32_t occurrence) {
    return std::string(id) + (occurrence > 1 ? "[" + std::to_string(occurrence) + "]" : "");
  }
  static std::string subject(const Subject& s) { return std::string(s.type) + " " + shown(s.id, s.occurrence); }
  static std::string place_text(const Place& p) { return p.occurrence == 0 ? "(top)" : shown(p.id, p.occurrence); }
  static nlohmann::ordered_json value_json(const Property* p) {
    if (p == nullptr) return nullptr;
    return {{"type", p->type}, {"value", p->value}};
  }
  static std::string value_text(const Property* p) {
    if (p == nullptr) return "(none)";
    return std::string(p->type) + " \"" + std::string(p->value) + "\"";
  }
  nlohmann::ordered_json head(const char* change, const Subject& s) const {
    nlohmann::ordered_json j;
    j["change"] = change;
    j["id"] = s.id;
    if (s.occurrence > 1) j["occurrence"] = s.occurrence;
    j["class"] = s.type;
    return j;
  }
  void write(const nlohmann::ordered_json& j, const std::string& text) {
    ++count_;
    if (json_) {
      out_ << j.dump() << '\n';
    } else {
      out_ << text << '\n';
    }
  }

  const bool json_;
  std::ostream& out_;
  uint64_t count_ = 0;
};

// Goes through the new document and reports against the old one as it goes.
class Comparison : public DocumentEvents {
 public:
  Comparison(OldDocument& old, const DiffOptions& options, Report& report)
      : old_(old), options_(options), report_(report) {}

  void open_object(std::string_view id, std::string_view type) override {
    if (!open_.empty()) settle(open_.back());
    Frame frame;
    frame.id = id;
    frame.type = type;
    frame.occurrence = ++occurrences_[frame.id];
    frame.old = old_.find(frame.id, frame.occurrence);
    Place parent;
    if (!open_.empty()) parent = {open_.back().id, open_.back().occurrence};
    if (frame.old == kNone) {
      report_.added_or_removed(true, subject(frame), parent);
    } else {
      OldObject& before = old_.objects_[frame.old];
      before.matched = true;
      const Place oldParent = old_.place(frame.old);
      if (!(oldParent == parent)) report_.moved(subject(frame), oldParent, parent);
      if (old_.text(before.type) != type) report_.class_changed(subject(frame), old_.text(before.type));
    }
    open_.push_back(std::move(frame));
    properties_.clear();
    series_.clear();
  }
  void property(std::string_view type, std::string_view name, std::string_view value) override {
    if (options_.ignored.count(name) != 0) return;
    properties_.push_back({std::string(type), std::string(name), std::string(value)});
  }
  void open_series(std::string_view id, std::string_view) override {
    series_.push_back({std::string(id), kHashStart, 0});
    inSeries_ = true;
  }
  void row(std::string_view text, std::string_view, std::string_view) override {
    if (!options_.history) return;
    series_.back().hash = hash_more(series_.back().hash, text);
    ++series_.back().rows;
  }
  void close_object() override {
    if (inSeries_) {
      inSeries_ = false;
      return;
    }
    settle(open_.back());
    open_.pop_back();
  }

  // The removed objects, in the old document's order.
  void finish() {
    for (uint32_t i = 0; i < old_.objects_.size(); ++i) {
      const OldObject& o = old_.objects_[i];
      if (o.matched) continue;
      report_.added_or_removed(false, {old_.text(o.id), o.occurrence, old_.text(o.type)}, old_.place(i));
    }
  }

 private:
  struct Frame {
    std::string id, type;
    uint32_t occurrence = 1;
    uint32_t old = kNone;
    bool settled = false;
  };
  struct NewProperty {
    std::string type, name, value;
  };
  struct NewSeries {
    std::string id;
    uint64_t hash;
    uint64_t rows;
  };

  static Report::Subject subject(const Frame& f) { return {f.id, f.occurrence, f.type}; }

  // Reports the property and history changes of `frame`, whose properties
  // and series are all read (a child opens or it closes).
  void settle(Frame& frame) {
    if (frame.settled) return;
    frame.settled = true;
    if (frame.old == kNone) return;
    const std::vector<Property> before = old_.properties(frame.old);
    std::vector<bool> seen(before.size());
    for (const NewProperty& p : properties_) {
      const Property now{p.type, p.name, p.value};
      size_t i = 0;
      while (i < before.size() && (seen[i] || before[i].name != p.name)) ++i;
      if (i == before.size()) {
        report_.property(subject(frame), p.name, nullptr, &now);
        continue;
      }
      seen[i] = true;
      if (before[i].type != p.type || before[i].value != p.value) {
        report_.property(subject(frame), p.name, &before[i], &now);
      }
    }
    for (size_t i = 0; i < before.size(); ++i) {
      if (!seen[i]) report_.property(subject(frame), before[i].name, &before[i], nullptr);
    }
    if (!options_.history) return;
    const OldObject& o = old_.objects_[frame.old];
    std::vector<bool> seriesSeen(o.seriesCount);
    for (const NewSeries& s : series_) {
      uint32_t i = 0;
      while (i < o.seriesCount && (seriesSeen[i] || old_.text(old_.series_[o.firstSeries + i].id) != s.id)) ++i;
      if (i == o.seriesCount) {
        report_.history(subject(frame), s.id, std::nullopt, s.rows);
        continue;
      }
      seriesSeen[i] = true;
      const OldSeries& b = old_.series_[o.firstSeries + i];
      if (b.hash != s.hash || b.rows != s.rows) report_.history(subject(frame), s.id, b.rows, s.rows);
    }
    for (uint32_t i = 0; i < o.seriesCount; ++i) {
      const OldSeries& b = old_.series_[o.firstSeries + i];
      if (!seriesSeen[i]) report_.history(subject(frame), old_.text(b.id), b.rows, std::nullopt);
    }
  }

  OldDocument& old_;
  const DiffOptions& options_;
  Report& report_;
  std::vector<Frame> open_;
  std::unordered_map<std::string, uint32_t> occurrences_;
  // Of the one object not settled yet.
  std::vector<NewProperty> properties_;
  std::vector<NewSeries> series_;
  bool inSeries_ = false;
};

// Reads `input` into `events`; false (the report on `err`) after a problem.
bool read_into(DocumentInput& input, const std::string& file, DocumentEvents& events, std::ostream& err) {
  try {
    read_document(input, events);
    return true;
  } catch (const Fault& fault) {
    err << fault_text(file, fault) << '\n';
    return false;
  }
}

}  // namespace

int print_diff(const std::string& oldFile, const std::string& newFile, const DiffOptions& options,
               std::ostream& out, std::ostream& err) {
  try {
    DocumentInput oldInput(oldFile);
    DocumentInput newInput(newFile);
    return print_diff(oldInput, oldFile, newInput, newFile, options, out, err);
  } catch (const Trouble& trouble) {
    err << "talvix-audit: " << trouble.what() << '\n';
    return 2;
  }
}

int print_diff(DocumentInput& oldInput, const std::string& oldName, DocumentInput& newInput,
               const std::string& newName, const DiffOptions& options, std::ostream& out,
               std::ostream& err) {
  try {
    OldDocument old(options);
    if (!read_into(oldInput, oldName, old, err)) return 2;
    Report report(options, out);
    Comparison comparison(old, options, report);
    if (!read_into(newInput, newName, comparison, err)) return 2;
    comparison.finish();
    out.flush();
    return report.count() == 0 ? 0 : 1;
  } catch (const Trouble& trouble) {
    err << "talvix-audit: " << trouble.what() << '\n';
    return 2;
  }
}

}  // namespace audit

#include "support/pipelined_run.h"

#include <sstream>

#include "porter/export_database.h"
#include "porter/out_stream.h"
#include "porter/run.h"
#include "porter/xml_export.h"
#include "server/database_json.h"
#include "util/error.h"

namespace pipelined_test {
namespace {

int64_t fixed_clock() { return 1204329600; }

constexpr char kTricky[] = R"({
  "rootDomain": "root", "mibRoot": "mib",
  "users": [{"domain": ".", "name": "admin", "password": "secret"}],
  "objects": [
    {"class": "Domain", "id": "root", "properties": [
      {"name": "siblingName", "type": "String", "computed": true, "value": "root"},
      {"name": "treeLabel", "type": "String", "value": "."},
      {"name": "parentId", "type": "Object", "computed": true, "value": null}
    ], "children": [
      {"class": "Node", "id": "n1", "properties": [
        {"name": "siblingName", "type": "String", "value": "alpha"},
        {"name": "load", "type": "Index"}, {"name": "state", "type": "Index"},
        {"name": "refused", "type": "Index"}, {"name": "empty", "type": "Index"}
      ], "children": [
        {"class": "Check", "id": "c1", "properties": [
          {"name": "siblingName", "type": "String", "value": "ping"},
          {"name": "rt", "type": "Index"}]},
        {"class": "Check", "id": "c1dup", "properties": [
          {"name": "siblingName", "type": "String", "value": "ping"},
          {"name": "rt", "type": "Index"}
        ], "children": [
          {"class": "Check", "id": "below-dup", "properties": [
            {"name": "siblingName", "type": "String", "value": "x"}]}]}
      ]},
      {"class": "Node", "id": "n1dup", "properties": [
        {"name": "siblingName", "type": "String", "value": "alpha"},
        {"name": "load", "type": "Index"}
      ], "children": [
        {"class": "Check", "id": "below-n1dup", "properties": [
          {"name": "siblingName", "type": "String", "value": "y"}]}]},
      {"class": "Node", "id": "flagged", "flags": 1, "properties": [
        {"name": "siblingName", "type": "String", "value": "flagged"}
      ], "children": [
        {"class": "Check", "id": "below-flagged", "properties": [
          {"name": "siblingName", "type": "String", "value": "z"}]}]},
      {"class": "Node", "id": "nullname", "properties": [
        {"name": "siblingName", "type": "String", "value": null}
      ], "children": [
        {"class": "Check", "id": "below-nullname", "properties": [
          {"name": "siblingName", "type": "String", "value": "w"}]}]},
      {"class": "AlertPathUsage", "id": "apu", "properties": [
        {"name": "count", "type": "Unsigned Integer", "value": 3}
      ], "children": [
        {"class": "Check", "id": "below-apu", "properties": [
          {"name": "siblingName", "type": "String", "value": "v"}]}]},
      {"class": "MibObject", "id": "stray-mib", "properties": [
        {"name": "siblingName", "type": "String", "value": "stray"}
      ], "children": [
        {"class": "Check", "id": "below-stray-mib", "properties": [
          {"name": "siblingName", "type": "String", "value": "u"}]}]},
      {"class": "NetworkScan", "id": "scan", "properties": [
        {"name": "siblingName", "type": "String", "value": "scan"}
      ], "children": [
        {"class": "Check", "id": "below-scan", "properties": [
          {"name": "siblingName", "type": "String", "value": "t"}]}]},
      {"class": "Domain", "id": "sub", "properties": [
        {"name": "siblingName", "type": "String", "value": "sub"},
        {"name": "treeLabel", "type": "String", "value": "Sub"},
        {"name": "name", "type": "String", "value": "Sub"}
      ], "children": [
        {"class": "Node", "id": "n2", "properties": [
          {"name": "siblingName", "type": "String", "value": "alpha"},
          {"name": "old", "type": "Index"}
        ], "children": [
          {"class": "Check", "id": "c2", "properties": [
            {"name": "siblingName", "type": "String", "value": "c2"}
          ], "children": [
            {"class": "NetworkScan", "id": "scan2", "properties": [
              {"name": "siblingName", "type": "String", "value": "scan2"}]}]}]},
        {"class": "Domain", "id": "subsub", "properties": [
          {"name": "siblingName", "type": "String", "value": "subsub"},
          {"name": "treeLabel", "type": "String", "value": "Sub.SubSub"},
          {"name": "name", "type": "String", "value": "SubSub"}
        ], "children": [
          {"class": "Node", "id": "n3", "properties": [
            {"name": "siblingName", "type": "String", "value": "n3"}]}]}]},
      {"class": "User", "id": "u1", "properties": [
        {"name": "siblingName", "type": "String", "value": "admin"}]},
      {"class": "AlertGroup", "id": "ag", "properties": [
        {"name": "siblingName", "type": "String", "value": "ops"}]}
    ]},
    {"class": "MibRoot", "id": "mib", "properties": [
      {"name": "siblingName", "type": "String", "value": "mib"}
    ], "children": [
      {"class": "MibModule", "id": "mod1", "properties": [
        {"name": "siblingName", "type": "String", "value": "IF-MIB"}
      ], "children": [
        {"class": "MibObject", "id": "obj1", "properties": [
          {"name": "siblingName", "type": "String", "value": "ifTable"}]}]},
      {"class": "MibObject", "id": "obj2", "properties": [
        {"name": "siblingName", "type": "String", "value": "IF-MIB"}]},
      {"class": "MibObject", "id": "obj3", "properties": [
        {"name": "siblingName", "type": "String", "value": "sysDescr"}]},
      {"class": "Note", "id": "note", "properties": [
        {"name": "siblingName", "type": "String", "value": "note"}]}
    ]}
  ],
  "history": [
    {"object": "n1", "index": "load", "datatype": "continuous", "intervals": [
      {"start": 100, "end": 200, "max": 3, "avg": 2, "min": 1, "ngood": 4, "nbad": 0}]},
    {"object": "n1", "index": "state", "datatype": "enum", "intervals": [
      {"start": 100, "end": 200, "mask": 5, "ngood": 1, "nbad": 0}]},
    {"object": "n1", "index": "empty", "datatype": "continuous", "intervals": []},
    {"object": "c1", "index": "rt", "datatype": "incidents", "intervals": [
      {"time": 150, "severity": 2, "message": "late <ack> & co"}]},
    {"object": "c1dup", "index": "rt", "datatype": "incidents", "intervals": [
      {"time": 150, "severity": 2, "message": "never asked"}]}
  ]
})";

}  // namespace

std::shared_ptr<const server::Database> tricky_database() {
  return server::parse_json_database(kTricky);
}

Outcome run_exporter(uint16_t port, std::vector<std::string> args, uint32_t depth) {
  std::vector<std::string> line = {"talvix-exporter", "-s", "127.0.0.1", "-p",
                                   std::to_string(port), "-l", "admin", "-P", "secret"};
  line.insert(line.end(), args.begin(), args.end());
  if (depth != kSequential) {
    line.push_back("-o");
    line.push_back("pipeline=" + std::to_string(depth));
  }
  std::vector<char*> argv;
  for (std::string& s : line) argv.push_back(s.data());
  argv.push_back(nullptr);

  Outcome outcome;
  std::ostringstream document, errors;
  outcome.exitCode = porter::run_command_line(
      static_cast<int>(line.size()), argv.data(),
      [&](const porter::RunSettings& s) {
        const porter::XMLExport prototype(ElementKind::Object, errors, fixed_clock);
        porter::ExportEnvironment environment;
        environment.standardOutput = &document;
        environment.errorStream = &errors;
        environment.extra = s.extra;
        environment.pipelineStats = &outcome.stats;
        try {
          porter::export_database(s.server, s.port, s.login, s.password, s.loginDomain,
                                  s.exportDomain, s.outputFileName, prototype, s.classFilter,
                                  s.history, s.gzip, environment);
        } catch (const error::Exception& e) {
          outcome.failure = e.text();
          throw;
        }
      },
      errors);
  outcome.document = document.str();
  outcome.errors = errors.str();

  // A failed export leaves the elements it opened open, and the XML nesting
  // depth is the process's: close them so the next run starts at the left.
  std::ostringstream scratch;
  porter::CPPOutStream scratchStream(scratch);
  const porter::XMLExport closer(ElementKind::Object, errors, fixed_clock);
  while (porter::XMLExport::depth() > 0) closer.create(ElementKind::Object)->close(scratchStream);
  return outcome;
}

}  // namespace pipelined_test

// End-to-end runs of the real talvix-exporter binary against the real
// talvix-server binary on a free loopback port. Each run is compared whole:
// the document (with the run's time stamp masked), the error stream and the
// exit code. The expected documents are written by hand from the document
// rules, mostly in tests/data/e2e_types.xml for tests/data/e2e_types.json;
// variants are cut from it by element id.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/e2e_document.h"
#include "support/e2e_process.h"

namespace {

using support::RunResult;
using support::ServerProcess;
using support::TempDir;

const std::string kExporter = TALVIX_EXPORTER_BINARY;
const std::string kServer = TALVIX_SERVER_BINARY;
const std::string kDataDir = TALVIX_E2E_DATA_DIR;
const auto kRunLimit = std::chrono::seconds(60);

// The document up to the first Object start tag, which shares the line.
const std::string kHeader =
    "<?xml version=\"1.0\"?>\n"
    "<Meta version=\"1.0\" description=\"Talvix exported database\" timestamp=\"TIMESTAMP\">\n"
    "</Meta>";

// The root domain of e2e_types.json with its properties.
const std::string kRootOpen =
    "<Object id=\"root\" type=\"Domain\">\n"
    "  <Property type=\"String\" name=\"name\" value=\"Test root\"/>\n"
    "  <Property type=\"Computed String\" name=\"siblingName\" value=\"root\"/>\n"
    "  <Property type=\"String\" name=\"treeLabel\" value=\".\"/>\n";

// Objects of e2e_types.json that the default export leaves out as
// duplicates, or whose children it leaves out as ignored classes.
const std::string kUserMib =
    "  <Object id=\"u-mib\" type=\"User\">\n"
    "    <Property type=\"String\" name=\"siblingName\" value=\"IF-MIB\"/>\n"
    "  </Object>\n";
const std::string kNodeDup =
    "  <Object id=\"n-dup\" type=\"Node\">\n"
    "    <Property type=\"String\" name=\"name\" value=\"same siblingName as a user\"/>\n"
    "    <Property type=\"String\" name=\"siblingName\" value=\"amy\"/>\n"
    "  </Object>\n";
const std::string kNodeFlag2Alone =
    "  <Object id=\"n-flag2\" type=\"Node\">\n"
    "    <Property type=\"String\" name=\"siblingName\" value=\"flag2\"/>\n"
    "  </Object>\n";
const std::string kNodeFlag2Subtree =
    "  <Object id=\"n-flag2\" type=\"Node\">\n"
    "    <Property type=\"String\" name=\"siblingName\" value=\"flag2\"/>\n"
    "    <Object id=\"scan-f2\" type=\"NetworkScan\">\n"
    "      <Property type=\"String\" name=\"siblingName\" value=\"sweep\"/>\n"
    "    </Object>\n"
    "    <Object id=\"chk-f2\" type=\"Check\">\n"
    "      <Property type=\"String\" name=\"siblingName\" value=\"c2\"/>\n"
    "      <Object id=\"job-f2\" type=\"NotificationJob\">\n"
    "        <Property type=\"String\" name=\"siblingName\" value=\"job\"/>\n"
    "      </Object>\n"
    "    </Object>\n"
    "  </Object>\n";

const std::string kDateNotice = "(ignoring date less than zero)";
const std::string kEndOfStream = "Error\nError reading: OsalSocket::read end of stream\n";

// `count` history progress lines for object `id`.
std::string statistics(const std::string& id, int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) lines += "\nExporting statistical data (" + id + "). Please wait.";
  return lines;
}

// The error stream of a default export of e2e_types.json, piece by piece:
// every Domain writes its progress line and a line end when it closes, every
// other exported object one dot; n-types has one history series (answered
// with a server error) and chk-root seven.
const std::string kTypesTail =
    ".."  // n-flag2, chk-f2
    "\nExporting domain east"
    ".."  // n-east, chk-east
    "\nExporting domain east.lab"
    "."     // n-lab
    "\n\n"  // east.lab and east closed
    "." +   // chk-root
    statistics("chk-root", 7) + "\n" +
    "."    // rep&1
    "\n";  // the root closed
const std::string kFullErr = "\nExporting domain ."
                             "......."  // mod-if, obj-up, u-zed, u-amy, ag-1, ap-mail, n-types
                             + kDateNotice + statistics("n-types", 1) + "\n" + kTypesTail;
// Without the MIB section, u-mib is no longer a duplicate of IF-MIB.
const std::string kNoMibErr = "\nExporting domain ."
                              "......"  // u-zed, u-amy, u-mib, ag-1, ap-mail, n-types
                              + kDateNotice + statistics("n-types", 1) + "\n" + kTypesTail;
// With -c there are neither history progress lines nor their closing line end.
const std::string kConfigErr = "\nExporting domain ." ".......(ignoring date less than zero)"
                               "..\nExporting domain east..\nExporting domain east.lab.\n\n"
                               ".."  // chk-root, rep&1
                               "\n";

std::string data_path(const std::string& name) { return kDataDir + "/" + name; }

// The hand-written document of a default export of e2e_types.json.
const std::string& full_document() {
  static const std::string document = support::read_file(data_path("e2e_types.xml"));
  return document;
}

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

RunResult run_exporter(const std::vector<std::string>& args, const std::string& workDir = "") {
  return support::run_process(kExporter, args, workDir, kRunLimit);
}

std::vector<std::string> login_args(uint16_t port, const std::string& password = "secret") {
  return {"-s", "localhost", "-p", std::to_string(port), "-l", "admin", "-P", password};
}

// Checks the whole outcome of a run: exit code, error stream and document
// (`document` with "TIMESTAMP" standing for the run's time stamp).
void expect_run(const RunResult& run, int exitCode, const std::string& document,
                const std::string& err) {
  ASSERT_FALSE(run.timedOut) << "the exporter ran past its time limit";
  EXPECT_EQ(run.signal, 0) << "the exporter died by a signal; error stream:\n" << run.err;
  EXPECT_EQ(run.exitCode, exitCode);
  EXPECT_EQ(run.err, err);
  std::string problem;
  EXPECT_EQ(support::mask_timestamp(run.out, run.started, run.ended, problem), document);
  EXPECT_EQ(problem, "");
}

// A talvix-server on `json` (a file) with extra options.
std::unique_ptr<ServerProcess> start_server(const std::string& json,
                                            const std::vector<std::string>& options = {}) {
  return std::make_unique<ServerProcess>(kServer, concat({"--db", json}, options));
}

// Runs against one server on e2e_types.json shared by the suite.
class TypesExport : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = start_server(data_path("e2e_types.json")); }
  static void TearDownTestSuite() { server_.reset(); }

  static RunResult exportWith(const std::vector<std::string>& extra,
                              const std::string& workDir = "") {
    return run_exporter(concat(login_args(server_->port()), extra), workDir);
  }

  static std::unique_ptr<ServerProcess> server_;
};
std::unique_ptr<ServerProcess> TypesExport::server_;

TEST_F(TypesExport, WholeDatabaseToStandardOutput) {
  expect_run(exportWith({}), 0, full_document(), kFullErr);
}

TEST_F(TypesExport, ConfigurationOnlyLeavesOutHistoryAndIndexProperties) {
  const std::string document = support::without(full_document(), {"acc", "cont", "enumS", "incid", "saw"});
  expect_run(exportWith({"-c"}), 0, document, kConfigErr);
}

// -f with a relative name, and -z -f: the same document as on standard
// output, with progress lines framed for a file; a quiet -f export too.
TEST_F(TypesExport, FileAndGzipOutputHoldThePlainExport) {
  TempDir dir;
  const RunResult plain = exportWith({"-f", "out.xml"}, dir.path());
  expect_run(plain, 0, "", "Exporting database" + kFullErr + "\nDone\n");
  const RunResult zipped = exportWith({"-z", "-f" + dir.file("out.xml.gz")});
  expect_run(zipped, 0, "", "Exporting database using gz " + kFullErr + "\nDone\n");
  // Quiet: neither the frame nor the marks, only the notice.
  const RunResult quiet = exportWith({"-f", "quiet.xml", "-o", "quiet=1"}, dir.path());
  expect_run(quiet, 0, "", kDateNotice);
  for (const auto& [text, run] : {std::pair{support::read_file(dir.file("out.xml")), &plain},
                                  std::pair{support::read_gzip_file(dir.file("out.xml.gz")), &zipped},
                                  std::pair{support::read_file(dir.file("quiet.xml")), &quiet}}) {
    std::string problem;
    EXPECT_EQ(support::mask_timestamp(text, run->started, run->ended, problem), full_document());
    EXPECT_EQ(problem, "");
  }
}

// One export with its own arguments and the document and error stream it
// must give.
struct VariantCase {
  const char* name;
  std::vector<std::string> args;
  std::function<std::string(const std::string& full)> document;
  std::string err;
};
void PrintTo(const VariantCase& c, std::ostream* os) { *os << c.name; }

class TypesVariant : public TypesExport, public ::testing::WithParamInterface<VariantCase> {};

TEST_P(TypesVariant, WritesExactly) {
  const VariantCase& c = GetParam();
  expect_run(exportWith(c.args), 0, c.document(full_document()), c.err);
}

// The subdomain `id` of the full document as the top element.
std::function<std::string(const std::string&)> subdomain(const std::string& id, size_t blanks) {
  return [=](const std::string& full) { return kHeader + support::dedent(support::element(full, id), blanks); };
}

std::string no_mib_document(const std::string& full) {
  return support::insert_after(support::without(full, {"mod-if", "obj-up"}), "u-amy", kUserMib);
}

INSTANTIATE_TEST_SUITE_P(
    ExportDomainsAndFilters, TypesVariant,
    ::testing::Values(
        // A path with an empty piece, which is dropped: the subdomain is the
        // top element, no MIB section.
        VariantCase{"PathWithEmptyPiece", {"-e", "east..lab"}, subdomain("d-east-lab", 4),
                    "\nExporting domain east.lab.\n"},
        // ".." has no pieces: the root, but not as a whole-database export, so
        // there is no MIB section and u-mib is exported.
        VariantCase{"DotDotIsTheRootWithoutMibs", {"-e", ".."}, no_mib_document, kNoMibErr},
        VariantCase{"IgnoringMibClassesSuppressesTheMibSection", {"-i", "MibObject,MibModule"},
                    no_mib_document, kNoMibErr},
        // The root passes as export root although Domain is ignored; users
        // are dropped, so n-dup is no longer a duplicate of u-amy.
        VariantCase{"IgnoredClassesButNotTheRoot",
                    {"-i", "User,Domain"},
                    [](const std::string& full) {
                      return support::insert_after(support::without(full, {"u-zed", "u-amy", "d-east"}),
                                               "n-types", kNodeDup);
                    },
                    "\nExporting domain ."
                    "....."  // mod-if, obj-up, ag-1, ap-mail, n-types
                    + kDateNotice + statistics("n-types", 1) + "\n" +
                        "...."  // n-dup, n-flag2, chk-f2, chk-root
                        + statistics("chk-root", 7) + "\n" + ".\n"},
        // Below an included Node everything is exported, ignored classes too.
        VariantCase{"IncludedWithSubtree",
                    {"-I", "Node+"},
                    [](const std::string& full) {
                      return kHeader + kRootOpen + support::element(full, "n-types") + kNodeDup +
                             kNodeFlag2Subtree + "</Object>\n";
                    },
                    "\nExporting domain ." "." + kDateNotice + statistics("n-types", 1) +
                        "\n" "....."  // n-dup, n-flag2, scan-f2, chk-f2, job-f2
                        "\n"},
        // NetworkScan is also one of the always ignored classes: ignored wins.
        VariantCase{"ClassBothIncludedAndIgnored",
                    {"-I", "Domain,Node,NetworkScan"},
                    [](const std::string& full) {
                      return kHeader + kRootOpen + support::element(full, "n-types") + kNodeDup +
                             kNodeFlag2Alone + support::without(support::element(full, "d-east"), {"chk-east"}) +
                             "</Object>\n";
                    },
                    "\nExporting domain ." "." + kDateNotice + statistics("n-types", 1) +
                        "\n" ".."  // n-dup, n-flag2
                        "\nExporting domain east.\nExporting domain east.lab.\n\n\n"},
        // A subdomain export whose domain is not included writes the header only.
        VariantCase{"ExportDomainNotIncluded", {"-I", "Node", "-e", "east"},
                    [](const std::string&) { return kHeader; }, ""}),
    [](const ::testing::TestParamInfo<VariantCase>& info) { return info.param.name; });

// Runs that fail before the output is opened leave the previous export as
// it was: export domains that are not there (a missing second level, a
// subdomain name only found further down) and a refused login.
TEST_F(TypesExport, FailuresBeforeOpeningTheOutputLeaveThePreviousExport) {
  const struct {
    std::string password, domain, err;
  } cases[] = {
      {"secret", "east.nowhere", "Error\nDomain \"east.nowhere\" does not exist.\n"},
      {"secret", "lab", "Error\nDomain \"lab\" does not exist.\n"},
      {"Secret", ".", "Failed connecting to server localhost\nWrong username / password\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    TempDir dir;
    const std::string previous = "<previous export/>\n";
    support::write_file(dir.file("out.xml"), previous);
    expect_run(run_exporter(concat(login_args(server_->port(), c.password),
                                   {"-e", c.domain, "-f", "out.xml"}),
                            dir.path()),
               1, "", "Exporting database" + c.err);
    EXPECT_EQ(support::read_file(dir.file("out.xml")), previous);
  }
}

// A disk that fills up, for the binary's own standard output and for an
// atomic, compressed, pipelined file cut by a file size limit (the in-process
// cases of every output kind are in atomic_output_test). The run ends with
// exit code 1, the target and the system's text, never with "Done"; the
// previous export stays as it was and nothing is left beside it.
TEST_F(TypesExport, AFullDiskEndsTheRunAndKeepsThePreviousExport) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  const struct {
    std::vector<std::string> args;
    std::string message;  // "XXXXXX" stands for the temporary file's own suffix
    bool standardOutputFull;
    uint64_t fileSizeLimit;
  } cases[] = {
      {{}, "Error writing: standard output: No space left on device", true, 0},
      {{"-z", "-f", "out.xml", "-o", "atomic=1,pipeline=16"},
       "Error closing gz-stream: out.xml.tmp-XXXXXX: File too large", false, 500},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    TempDir dir;
    const std::string previous = "<previous export/>\n";
    support::write_file(dir.file("out.xml"), previous);
    support::RunOptions options;
    options.fileSizeLimit = c.fileSizeLimit;
    if (c.standardOutputFull) options.standardOutput = "/dev/full";
    const RunResult run = support::run_process(kExporter, concat(login_args(server_->port()), c.args),
                                           dir.path(), kRunLimit, options);
    ASSERT_FALSE(run.timedOut);
    EXPECT_EQ(run.signal, 0);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err.find("Done"), std::string::npos) << run.err;
    const std::string expected = "Error\n" + c.message + "\n";
    ASSERT_GE(run.err.size(), expected.size()) << run.err;
    std::string tail = run.err.substr(run.err.size() - expected.size());
    if (const size_t suffix = expected.find("XXXXXX"); suffix != std::string::npos) {
      tail.replace(suffix, 6, "XXXXXX");
    }
    EXPECT_EQ(tail, expected) << run.err;
    EXPECT_EQ(support::read_file(dir.file("out.xml")), previous);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
      names.push_back(entry.path().filename());
    }
    EXPECT_EQ(names, std::vector<std::string>{"out.xml"});
  }
}

// The password of -P is out of the process list while the export runs. The
// run is held at its first wait for an answer, from a listener that never
// gives one, and is looked at from outside in that state.
TEST(PasswordOutOfSight, NeitherPsNorProcShowTheValueOfP) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);

  std::string cmdline, ps;
  support::RunOptions options;
  options.whileRunning = [&](pid_t pid) {
    pollfd incoming{listener, POLLIN, 0};
    if (poll(&incoming, 1, 20000) != 1) return;
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    // Connected: the options are scanned and the exporter waits for the server.
    cmdline = support::read_file("/proc/" + std::to_string(pid) + "/cmdline");
    ps = support::run_process("/usr/bin/ps", {"-o", "args=", "-p", std::to_string(pid)}, "", kRunLimit).out;
    close(connection);
  };
  // Both ways of giving a value: joined to the option and as the next argument.
  const RunResult run = support::run_process(
      kExporter, {"-s", "127.0.0.1", "-p", std::to_string(ntohs(address.sin_port)), "-l", "admin",
                  "-Pfirst-hush", "-P", "second-hush"},
      "", kRunLimit, options);
  close(listener);

  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_NE(cmdline.find(std::string("-l\0admin\0-P", 11)), std::string::npos)
      << "the exporter's arguments were not seen while it ran: " << cmdline;
  EXPECT_NE(ps.find("-l admin -P"), std::string::npos) << ps;
  for (const std::string& shown : {cmdline, ps}) EXPECT_EQ(shown.find("hush"), std::string::npos) << shown;
}

// The server closes the connection when request N arrives.
TEST(ServerCloses, AtTheMibSelection) {
  // Requests: 1 the root ".!", 2 its ".! > .", 3 the walk's re-select,
  // 4 the MIB selection, 5 the first MIB module.
  auto server = start_server(data_path("e2e_types.json"), {"--close-at", "5"});
  expect_run(run_exporter(login_args(server->port())), 1, kHeader + kRootOpen,
             "\nExporting domain ." + kEndOfStream);
  // Quiet, the message alone.
  expect_run(run_exporter(concat(login_args(server->port()), {"-o", "quiet=1"})), 1,
             kHeader + kRootOpen, kEndOfStream);
}

// JSON of an object of the small databases, and of a String property.
std::string object(const std::string& cls, const std::string& id, const std::string& properties) {
  return R"({"class": ")" + cls + R"(", "id": ")" + id + R"(", "properties": [)" + properties + "]}";
}
std::string string_property(const std::string& name, const std::string& value) {
  return R"({"name": ")" + name + R"(", "type": "String", "value": ")" + value + R"("})";
}

// Small databases that end the export at one object: a root domain "r" and
// the objects given.
std::string small_database(const std::string& children) {
  return R"({"rootDomain": "r", "mibRoot": "m",
  "users": [{"domain": ".", "name": "admin", "password": "secret"}],
  "objects": [{"class": "Domain", "id": "r", "properties": [)" +
         string_property("siblingName", "r") + "," + string_property("treeLabel", ".") +
         R"(], "children": [)" + children + "]}," + object("MibRoot", "m", "") +
         "]}";
}

const std::string kSmallRoot =
    "<Object id=\"r\" type=\"Domain\">\n"
    "  <Property type=\"String\" name=\"siblingName\" value=\"r\"/>\n"
    "  <Property type=\"String\" name=\"treeLabel\" value=\".\"/>\n";

// Objects that end the export with a failure of the data, in a small
// database each.
TEST(SmallDatabase, AnObjectThatCannotBeWrittenEndsTheExport) {
  const struct {
    std::string children, document, err;
  } cases[] = {
      {object("Node", "n1", string_property("siblingName", "a")) + "," +
           object("AlertPathUsage", "apu", "") + "," +
           object("Node", "n2", string_property("name", "no siblingName")) + "," +
           object("Node", "n3", string_property("siblingName", "c")),
       "  <Object id=\"n1\" type=\"Node\">\n"
       "    <Property type=\"String\" name=\"siblingName\" value=\"a\"/>\n"
       "  </Object>\n",
       "Couldn't get siblingName for n2 of class Node\n"},
      {object("Node", "n1", string_property("a", "x") +
                                R"(, {"name": "b", "type": 16, "valueClass": "SignedInt64", "value": 5}, )" +
                                string_property("siblingName", "n")),
       "  <Object id=\"n1\" type=\"Node\">\n"
       "    <Property type=\"String\" name=\"a\" value=\"x\"/>\n",
       "Unknown property 16 :  = \n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    TempDir dir;
    support::write_file(dir.file("db.json"), small_database(c.children));
    auto server = start_server(dir.file("db.json"));
    expect_run(run_exporter(login_args(server->port())), 1, kHeader + kSmallRoot + c.document,
               "\nExporting domain ..Error\n" + c.err);
  }
}

}  // namespace

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
#include <sys/stat.h>
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

using e2e::RunResult;
using e2e::ServerProcess;
using e2e::TempDir;

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
  static const std::string document = e2e::read_file(data_path("e2e_types.xml"));
  return document;
}

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

RunResult run_exporter(const std::vector<std::string>& args, const std::string& workDir = "") {
  return e2e::run_process(kExporter, args, workDir, kRunLimit);
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
  EXPECT_EQ(e2e::mask_timestamp(run.out, run.started, run.ended, problem), document);
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
  const std::string document = e2e::without(full_document(), {"acc", "cont", "enumS", "incid", "saw"});
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
  for (const auto& [text, run] : {std::pair{e2e::read_file(dir.file("out.xml")), &plain},
                                  std::pair{e2e::read_gzip_file(dir.file("out.xml.gz")), &zipped},
                                  std::pair{e2e::read_file(dir.file("quiet.xml")), &quiet}}) {
    std::string problem;
    EXPECT_EQ(e2e::mask_timestamp(text, run->started, run->ended, problem), full_document());
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
  return [=](const std::string& full) { return kHeader + e2e::dedent(e2e::element(full, id), blanks); };
}

std::string whole_document(const std::string& full) { return full; }

std::string no_mib_document(const std::string& full) {
  return e2e::insert_after(e2e::without(full, {"mod-if", "obj-up"}), "u-amy", kUserMib);
}

INSTANTIATE_TEST_SUITE_P(
    ExportDomainsAndFilters, TypesVariant,
    ::testing::Values(
        // A path with an empty piece, which is dropped: the subdomain is the
        // top element, no MIB section.
        VariantCase{"PathWithEmptyPiece", {"-e", "east..lab"}, subdomain("d-east-lab", 4),
                    "\nExporting domain east.lab.\n"},
        VariantCase{"OneLevelPath", {"-e", "east"}, subdomain("d-east", 2),
                    "\nExporting domain east..\nExporting domain east.lab.\n\n"},
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
                      return e2e::insert_after(e2e::without(full, {"u-zed", "u-amy", "d-east"}),
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
                      return kHeader + kRootOpen + e2e::element(full, "n-types") + kNodeDup +
                             kNodeFlag2Subtree + "</Object>\n";
                    },
                    "\nExporting domain ." "." + kDateNotice + statistics("n-types", 1) +
                        "\n" "....."  // n-dup, n-flag2, scan-f2, chk-f2, job-f2
                        "\n"},
        // NetworkScan is also one of the always ignored classes: ignored wins.
        VariantCase{"ClassBothIncludedAndIgnored",
                    {"-I", "Domain,Node,NetworkScan"},
                    [](const std::string& full) {
                      return kHeader + kRootOpen + e2e::element(full, "n-types") + kNodeDup +
                             kNodeFlag2Alone + e2e::without(e2e::element(full, "d-east"), {"chk-east"}) +
                             "</Object>\n";
                    },
                    "\nExporting domain ." "." + kDateNotice + statistics("n-types", 1) +
                        "\n" ".."  // n-dup, n-flag2
                        "\nExporting domain east.\nExporting domain east.lab.\n\n\n"},
        // A subdomain export whose domain is not included writes the header only.
        VariantCase{"ExportDomainNotIncluded", {"-I", "Node", "-e", "east"},
                    [](const std::string&) { return kHeader; }, ""}),
    [](const ::testing::TestParamInfo<VariantCase>& info) { return info.param.name; });

// -o quiet=1 leaves the notice about the data alone on the error stream; of
// progress and quiet the later one in the list wins.
INSTANTIATE_TEST_SUITE_P(
    ProgressModes, TypesVariant,
    ::testing::Values(
        VariantCase{"Quiet", {"-o", "quiet=1"}, whole_document, kDateNotice},
        VariantCase{"QuietPipelined", {"-o", "quiet=1,pipeline=16"}, whole_document, kDateNotice},
        VariantCase{"QuietAfterProgress", {"-o", "progress=1", "-o", "quiet=1"}, whole_document,
                    kDateNotice},
        VariantCase{"QuietOffAgain", {"-o", "quiet=1,quiet=0"}, whole_document, kFullErr}),
    [](const ::testing::TestParamInfo<VariantCase>& info) { return info.param.name; });

// Export domains that are not there (a missing second level, a subdomain
// name only found further down): nothing is written, not even a file.
TEST_F(TypesExport, MissingDomainFailsBeforeOpeningTheOutput) {
  for (const std::string path : {"east.nowhere", "lab"}) {
    SCOPED_TRACE(path);
    const std::string message = "Error\nDomain \"" + path + "\" does not exist.\n";
    expect_run(exportWith({"-e", path}), 1, "", message);
    TempDir dir;
    expect_run(exportWith({"-e", path, "-f", "out.xml"}, dir.path()), 1, "",
               "Exporting database" + message);
    EXPECT_FALSE(std::filesystem::exists(dir.file("out.xml")));
  }
}

// A refused login leaves an existing output file as it was.
TEST_F(TypesExport, RefusedLoginLeavesTheOutputFileUntouched) {
  TempDir dir;
  const std::string before = "<previous export/>\n";
  e2e::write_file(dir.file("out.xml"), before);
  expect_run(run_exporter(concat(login_args(server_->port(), "Secret"), {"-f", "out.xml"}), dir.path()),
             1, "", "Exporting databaseFailed connecting to server localhost\nWrong username / password\n");
  EXPECT_EQ(e2e::read_file(dir.file("out.xml")), before);
}

// Without -P the password file logs in; the file's line end is not part of it.
TEST_F(TypesExport, PasswordFileLogsIn) {
  TempDir dir;
  e2e::write_file(dir.file("pw"), "secret\nnot the password\n");
  ASSERT_EQ(chmod(dir.file("pw").c_str(), 0600), 0);
  expect_run(run_exporter({"-s", "localhost", "-p", std::to_string(server_->port()), "-l", "admin",
                           "-o", "password-file=pw"},
                          dir.path()),
             0, full_document(), kFullErr);
}

// A disk that fills up: /dev/full takes no byte, a file size limit cuts the
// file in its middle. The run ends with exit code 1, the target and the
// system's text, never with "Done"; an atomic run leaves the previous export
// as it was and nothing beside it.
struct WriteFailureCase {
  const char* name;
  std::vector<std::string> args;
  std::string message;  // "XXXXXX" stands for the temporary file's own suffix
  bool standardOutputFull = false;
  uint64_t fileSizeLimit = 0;
  bool keepsPrevious = true;  // out.xml, the previous export, is left as it was
};
void PrintTo(const WriteFailureCase& c, std::ostream* os) { *os << c.name; }

class WriteFailure : public TypesExport, public ::testing::WithParamInterface<WriteFailureCase> {};

TEST_P(WriteFailure, EndsWithTheTargetAndTheSystemsText) {
  const WriteFailureCase& c = GetParam();
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  TempDir dir;
  const std::string previous = "<previous export/>\n";
  e2e::write_file(dir.file("out.xml"), previous);
  e2e::RunOptions options;
  options.fileSizeLimit = c.fileSizeLimit;
  if (c.standardOutputFull) options.standardOutput = "/dev/full";
  const RunResult run = e2e::run_process(kExporter, concat(login_args(server_->port()), c.args),
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

  EXPECT_EQ(e2e::read_file(dir.file("out.xml")) == previous, c.keepsPrevious);
  if (!c.keepsPrevious) {
    EXPECT_EQ(std::filesystem::file_size(dir.file("out.xml")), c.fileSizeLimit);
  }
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.push_back(entry.path().filename());
  }
  EXPECT_EQ(names, std::vector<std::string>{"out.xml"});
}

const std::string kNoSpace = ": No space left on device";
const std::string kTooLarge = ": File too large";

INSTANTIATE_TEST_SUITE_P(
    FullDisk, WriteFailure,
    ::testing::Values(
        WriteFailureCase{"File", {"-f/dev/full"}, "Error writing: /dev/full" + kNoSpace},
        WriteFailureCase{"FilePipelined", {"-f/dev/full", "-o", "pipeline=16"},
                         "Error writing: /dev/full" + kNoSpace},
        WriteFailureCase{"Gzip", {"-z", "-f/dev/full"}, "Error closing gz-stream: /dev/full" + kNoSpace},
        WriteFailureCase{"GzipPipelined", {"-z", "-f/dev/full", "-o", "pipeline=16"},
                         "Error closing gz-stream: /dev/full" + kNoSpace},
        WriteFailureCase{"StandardOutput", {}, "Error writing: standard output" + kNoSpace, true},
        WriteFailureCase{"StandardOutputPipelined", {"-o", "pipeline=16"},
                         "Error writing: standard output" + kNoSpace, true},
        WriteFailureCase{"LimitedFile", {"-f", "out.xml"}, "Error writing: out.xml" + kTooLarge,
                         false, 1000, false},
        WriteFailureCase{"LimitedFileAtomic", {"-f", "out.xml", "-o", "atomic=1"},
                         "Error writing: out.xml" + kTooLarge, false, 1000},
        WriteFailureCase{"LimitedGzipAtomicPipelined",
                         {"-z", "-f", "out.xml", "-o", "atomic=1,pipeline=16"},
                         "Error closing gz-stream: out.xml.tmp-XXXXXX" + kTooLarge, false, 500}),
    [](const ::testing::TestParamInfo<WriteFailureCase>& info) { return info.param.name; });

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
  e2e::RunOptions options;
  options.whileRunning = [&](pid_t pid) {
    pollfd incoming{listener, POLLIN, 0};
    if (poll(&incoming, 1, 20000) != 1) return;
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    // Connected: the options are scanned and the exporter waits for the server.
    cmdline = e2e::read_file("/proc/" + std::to_string(pid) + "/cmdline");
    ps = e2e::run_process("/usr/bin/ps", {"-o", "args=", "-p", std::to_string(pid)}, "", kRunLimit).out;
    close(connection);
  };
  // Both ways of giving a value: joined to the option and as the next argument.
  const RunResult run = e2e::run_process(
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

TEST(Unreachable, ConnectionRefused) {
  const uint16_t port = e2e::unused_loopback_port();
  expect_run(run_exporter({"-s", "127.0.0.1", "-p", std::to_string(port), "-l", "admin", "-P", "x"}),
             1, "", "Error\nError connecting: Connection refused (111)\n");
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
// the objects and history given.
std::string small_database(const std::string& children, const std::string& history) {
  return R"({"rootDomain": "r", "mibRoot": "m",
  "users": [{"domain": ".", "name": "admin", "password": "secret"}],
  "objects": [{"class": "Domain", "id": "r", "properties": [)" +
         string_property("siblingName", "r") + "," + string_property("treeLabel", ".") +
         R"(], "children": [)" + children + "]}," + object("MibRoot", "m", "") +
         R"(], "history": [)" + history + "]}";
}

const std::string kSmallRoot =
    "<Object id=\"r\" type=\"Domain\">\n"
    "  <Property type=\"String\" name=\"siblingName\" value=\"r\"/>\n"
    "  <Property type=\"String\" name=\"treeLabel\" value=\".\"/>\n";

// A Check "c" with the Index property "v" and the siblingName "c".
const std::string kCheckWithIndex =
    object("Check", "c", string_property("siblingName", "c") + R"(, {"name": "v", "type": "Index", "value": 1})");
const std::string kCheckOpen =
    "  <Object id=\"c\" type=\"Check\">\n"
    "    <Property type=\"String\" name=\"siblingName\" value=\"c\"/>\n";

struct SmallCase {
  const char* name;
  std::string children, history;
  int exitCode;
  std::string document, err;
};
void PrintTo(const SmallCase& c, std::ostream* os) { *os << c.name; }

// The Check c alone with the history series `series` (JSON without its
// object and index) for its Index v: the document written up to `written`
// and the error stream ending with `errTail`.
SmallCase series_case(const char* name, std::string series, int exitCode,
                      const std::string& written, const std::string& errTail) {
  series.insert(1, R"("object": "c", "index": "v", )");
  return {name,     kCheckWithIndex, series, exitCode, kHeader + kSmallRoot + kCheckOpen + written,
          "\nExporting domain .." + statistics("c", 1) + errTail};
}

std::string series_open(const std::string& datatype) {
  return "    <Object id=\"v\" type=\"Data\" datatype=\"" + datatype + "\">\n";
}

class SmallDatabase : public ::testing::TestWithParam<SmallCase> {};

TEST_P(SmallDatabase, ExportsExactly) {
  const SmallCase& c = GetParam();
  TempDir dir;
  e2e::write_file(dir.file("db.json"), small_database(c.children, c.history));
  auto server = start_server(dir.file("db.json"));
  expect_run(run_exporter(login_args(server->port())), c.exitCode, c.document, c.err);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, SmallDatabase,
    ::testing::Values(
        SmallCase{"MissingSiblingName",
                  object("Node", "n1", string_property("siblingName", "a")) + "," +
                      object("AlertPathUsage", "apu", "") + "," +
                      object("Node", "n2", string_property("name", "no siblingName")) + "," +
                      object("Node", "n3", string_property("siblingName", "c")),
                  "", 1,
                  kHeader + kSmallRoot +
                      "  <Object id=\"n1\" type=\"Node\">\n"
                      "    <Property type=\"String\" name=\"siblingName\" value=\"a\"/>\n"
                      "  </Object>\n",
                  "\nExporting domain .." "Error\nCouldn't get siblingName for n2 of class Node\n"},
        series_case("DatatypeContinuousDeprecated",
                    R"({"datatype": 1, "intervals": [
                         {"start": 0, "end": 60, "max": 2, "min": 1, "values": [1, 2]}]})",
                    1, series_open("continuousDEPRECATED"),
                    "Error\nGot unknown datatype for rows [1]\n"),
        series_case("DatatypeWithoutName",
                    R"({"datatype": 9, "intervals": [
                         {"class": "continuous", "start": 0, "end": 60, "max": 2, "avg": 1.5,
                          "min": 1, "ngood": 1, "nbad": 0}]})",
                    1, "", "Error\nTried to get name of invalid datatype: 9\n"),
        // Without rows the datatype is never looked at.
        series_case("DatatypeWithoutNameAndNoRows", R"({"datatype": 9, "intervals": []})", 0,
                    "  </Object>\n</Object>\n", "\n\n"),
        SmallCase{"UnknownPropertyType",
                  object("Node", "n1", string_property("a", "x") +
                      R"(, {"name": "b", "type": 16, "valueClass": "SignedInt64", "value": 5}, )" +
                      string_property("siblingName", "n")),
                  "", 1,
                  kHeader + kSmallRoot +
                      "  <Object id=\"n1\" type=\"Node\">\n"
                      "    <Property type=\"String\" name=\"a\" value=\"x\"/>\n",
                  "\nExporting domain .." "Error\nUnknown property 16 :  = \n"}),
    [](const ::testing::TestParamInfo<SmallCase>& info) { return info.param.name; });

}  // namespace

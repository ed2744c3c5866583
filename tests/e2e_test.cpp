// End-to-end runs of the real talvix-exporter binary against the real
// talvix-server binary on a free loopback port. Each run is compared whole:
// the document (with the run's time stamp masked), the error stream and the
// exit code. The expected documents are written by hand from the document
// rules, mostly in tests/data/e2e_types.xml for tests/data/e2e_types.json;
// variants are cut from it by element id.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "audit/document_input.h"
#include "audit/document_reader.h"
#include "support/e2e_document.h"
#include "support/process.h"

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

const std::string kNodeFlag2Alone = support::without(kNodeFlag2Subtree, {"scan-f2", "chk-f2"});

const std::string kDateNotice = "(ignoring date less than zero)";

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
const std::string kFull = support::read_file(data_path("e2e_types.xml"));
// Its root domain with its properties.
const std::string kRootOpen = kFull.substr(kHeader.size(), kFull.find("  <Object") - kHeader.size());


// The login to `port`, then `extra`.
std::vector<std::string> login_args(uint16_t port, const std::vector<std::string>& extra,
                                    const std::string& password = "secret") {
  std::vector<std::string> args = {"-s", "localhost", "-p", std::to_string(port), "-l", "admin", "-P", password};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

// Runs against one server on e2e_types.json shared by the suite.
class TypesExport : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = std::make_unique<ServerProcess>(kServer, std::vector<std::string>{"--db", data_path("e2e_types.json")});
  }
  static void TearDownTestSuite() { server_.reset(); }

  static std::unique_ptr<ServerProcess> server_;
};
std::unique_ptr<ServerProcess> TypesExport::server_;

// One export with its own arguments and the document (with "TIMESTAMP"
// standing for the run's time stamp) and error stream it must give, exit 0.
struct VariantCase {
  const char* name;
  std::vector<std::string> args;
  std::string document;
  std::string err;
};

class TypesVariant : public TypesExport, public ::testing::WithParamInterface<VariantCase> {};

TEST_P(TypesVariant, WritesExactly) {
  const VariantCase& c = GetParam();
  const RunResult run = support::run_process(kExporter, login_args(server_->port(), c.args), "", kRunLimit);
  EXPECT_EQ(run.exitCode, 0) << "-1: killed (timed out: " << run.timedOut << ")";
  EXPECT_EQ(run.err, c.err);
  std::string problem;
  EXPECT_EQ(support::mask_timestamp(run.out, run.started, run.ended, problem), c.document);
  EXPECT_EQ(problem, "");
  audit::DocumentInput written(audit::DocumentInput::InMemory{}, run.out);
  audit::DocumentEvents unused;
  EXPECT_NO_THROW(audit::read_document(written, unused)) << "talvix-audit verify rejects it";
}

const std::string kNoMibDocument =
    support::insert_after(support::without(kFull, {"mod-if", "obj-up"}), "u-amy", kUserMib);

INSTANTIATE_TEST_SUITE_P(
    ExportDomainsAndFilters, TypesVariant,
    ::testing::Values(
        VariantCase{"WholeDatabase", {}, kFull, kFullErr},
        // Configuration only: no history and no Index properties.
        VariantCase{"ConfigurationOnly", {"-c"}, support::without(kFull, {"acc", "cont", "enumS", "incid", "saw"}),
                    kConfigErr},
        // A path with an empty piece, which is dropped: the subdomain is the
        // top element, no MIB section.
        VariantCase{"PathWithEmptyPiece", {"-e", "east..lab"},
                    kHeader + "<Object id=\"d-east-lab\" type=\"Domain\">\n"
                    "  <Property type=\"String\" name=\"name\" value=\"lab\"/>\n"
                    "  <Property type=\"Computed String\" name=\"siblingName\" value=\"lab\"/>\n"
                    "  <Property type=\"String\" name=\"treeLabel\" value=\"east.lab\"/>\n"
                    "  <Object id=\"n-lab\" type=\"Node\">\n"
                    "    <Property type=\"String\" name=\"siblingName\" value=\"gw\"/>\n"
                    "  </Object>\n"
                    "</Object>\n",
                    "\nExporting domain east.lab.\n"},
        // ".." has no pieces: the root, but not as a whole-database export, so
        // there is no MIB section and u-mib is exported.
        VariantCase{"DotDotIsTheRootWithoutMibs", {"-e", ".."}, kNoMibDocument, kNoMibErr},
        VariantCase{"IgnoringMibClassesSuppressesTheMibSection", {"-i", "MibObject,MibModule"},
                    kNoMibDocument, kNoMibErr},
        // The root passes as export root although Domain is ignored; users
        // are dropped, so n-dup is no longer a duplicate of u-amy.
        VariantCase{"IgnoredClassesButNotTheRoot", {"-i", "User,Domain"},
                    support::insert_after(support::without(kFull, {"u-zed", "u-amy", "d-east"}), "n-types", kNodeDup),
                    "\nExporting domain ."
                    "....."  // mod-if, obj-up, ag-1, ap-mail, n-types
                    + kDateNotice + statistics("n-types", 1) + "\n" +
                        "...."  // n-dup, n-flag2, chk-f2, chk-root
                        + statistics("chk-root", 7) + "\n" + ".\n"},
        // Below an included Node everything is exported, ignored classes too.
        VariantCase{"IncludedWithSubtree", {"-I", "Node+"},
                    kHeader + kRootOpen + support::element(kFull, "n-types") + kNodeDup + kNodeFlag2Subtree +
                        "</Object>\n",
                    "\nExporting domain ." "." + kDateNotice + statistics("n-types", 1) +
                        "\n" "....."  // n-dup, n-flag2, scan-f2, chk-f2, job-f2
                        "\n"},
        // NetworkScan is also one of the always ignored classes: ignored wins.
        VariantCase{"ClassBothIncludedAndIgnored", {"-I", "Domain,Node,NetworkScan"},
                    kHeader + kRootOpen + support::element(kFull, "n-types") + kNodeDup + kNodeFlag2Alone +
                        support::without(support::element(kFull, "d-east"), {"chk-east"}) + "</Object>\n",
                    "\nExporting domain ." "." + kDateNotice + statistics("n-types", 1) +
                        "\n" ".."  // n-dup, n-flag2
                        "\nExporting domain east.\nExporting domain east.lab.\n\n\n"},
        // A subdomain export whose domain is not included writes the header only.
        VariantCase{"ExportDomainNotIncluded", {"-I", "Node", "-e", "east"}, kHeader, ""}),
    [](const ::testing::TestParamInfo<VariantCase>& info) { return info.param.name; });

// A zstd file, written sequentially and by the compressor thread of a
// pipelined export, is the plain document for the zstd program.
TEST_F(TypesExport, ZstdFileHoldsThePlainDocument) {
  for (const std::string settings : {"compress=zstd", "compress=zstd,level=3,pipeline=16"}) {
    SCOPED_TRACE(settings);
    TempDir dir;
    const std::string file = dir.file("out.zst");
    const RunResult run = support::run_process(
        kExporter, login_args(server_->port(), {"-z", "-f" + file, "-o", settings}), "", kRunLimit);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "Exporting database using gz " + kFullErr + "\nDone\n");
    const RunResult plain = support::run_process("/usr/bin/zstd", {"-dcq", file}, "", kRunLimit);
    std::string problem;
    EXPECT_EQ(support::mask_timestamp(plain.out, run.started, run.ended, problem), kFull);
    EXPECT_EQ(problem, "");
  }
}

// Failed runs leave the previous export as it was and nothing beside it:
// before the output is opened, export domains that are not there (a missing
// second level, a subdomain name only found further down) and a refused
// login; then a full disk for the binary's own standard output, and a file
// size limit that cuts an atomic, compressed, pipelined file (the in-process
// cases of every output kind are in atomic_output_test). Each ends with exit
// code 1 and its message, never with "Done".
TEST_F(TypesExport, AFailedRunKeepsThePreviousExport) {
  const std::string kZstdFull = "Error\nError writing zstd-stream: /dev/full: No space left on device\n";
  const struct {
    std::string password;
    std::vector<std::string> args;
    std::string errEnd;  // a pattern of the end of the error stream
    uint64_t fileSizeLimit = 0;
    bool standardOutputFull = false;
  } cases[] = {
      {"secret", {"-e", "east.nowhere", "-f", "out.xml"},
       "Exporting databaseError\nDomain \"east.nowhere\" does not exist.\n"},
      {"secret", {"-e", "lab", "-f", "out.xml"}, "Exporting databaseError\nDomain \"lab\" does not exist.\n"},
      {"Secret", {"-f", "out.xml"},
       "Exporting databaseFailed connecting to server localhost\nWrong username / password\n"},
      {"secret", {}, "Error\nError writing: standard output: No space left on device\n", 0, true},
      {"secret", {"-z", "-f", "out.xml", "-o", "atomic=1,pipeline=16"},
       "Error\nError closing gz-stream: out.xml.tmp-......: File too large\n", 500},
      {"secret", {"-z", "-f/dev/full", "-o", "compress=zstd"}, kZstdFull},
      {"secret", {"-z", "-f/dev/full", "-o", "compress=zstd,level=19,pipeline=16"}, kZstdFull},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.errEnd);
    if (c.standardOutputFull && access("/dev/full", W_OK) != 0) continue;
    TempDir dir;
    support::write_file(dir.file("out.xml"), "<previous export/>\n");
    support::RunOptions options;
    options.fileSizeLimit = c.fileSizeLimit;
    if (c.standardOutputFull) options.standardOutput = "/dev/full";
    const RunResult run = support::run_process(
        kExporter, login_args(server_->port(), c.args, c.password), dir.path(), kRunLimit, options);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(std::regex_search(run.err, std::regex(c.errEnd + "$"))) << run.err;
    EXPECT_EQ(support::read_file(dir.file("out.xml")), "<previous export/>\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << "out.xml alone";
  }
}

}  // namespace

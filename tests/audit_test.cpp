// talvix-audit against documents written by hand from the document rules
// (tests/data/e2e_types.xml), damaged on purpose, compressed by the gzip and
// zstd commands, with sidecars made by sha256sum; JSON read back by Python.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "audit/command_line.h"
#include "audit/document_input.h"
#include "audit/document_reader.h"
#include "audit/faults.h"
#include "audit/value_syntax.h"
#include "support/e2e_document.h"
#include "support/process.h"

namespace {

using support::TempDir;

const std::string kDocument = [] {
  std::string text = support::read_file(std::string(TALVIX_SOURCE_DIR) + "/tests/data/e2e_types.xml");
  return text.replace(text.find("TIMESTAMP"), 9, "2008-03-01-T00:00:00");
}();

std::optional<audit::Fault> fault_of(std::string_view bytes) {
  audit::DocumentInput input(audit::DocumentInput::InMemory{}, bytes);
  audit::DocumentEvents nothing;
  try {
    audit::read_document(input, nothing);
  } catch (const audit::Fault& fault) {
    return fault;
  }
  return std::nullopt;
}

struct AuditRun {
  int code;
  std::string out, err;
};

// talvix-audit in-process; "D/" in arguments stands for `dir`'s path.
AuditRun audit_run(std::vector<std::string> args, const TempDir& dir) {
  args.insert(args.begin(), "talvix-audit");
  std::vector<char*> argv;
  for (std::string& a : args) {
    if (a.rfind("D/", 0) == 0) a = dir.file(a.substr(2));
    argv.push_back(a.data());
  }
  std::ostringstream out, err;
  const int code = audit::run_audit(static_cast<int>(argv.size()), argv.data(), out, err);
  return {code, out.str(), err.str()};
}

std::string replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

TEST(AuditVerify, EveryPrefixAndEveryChangedMarkupByteIsRejectedWhereItIs) {
  ASSERT_FALSE(fault_of(kDocument));
  // Cut right after "</Meta>" it is what an export that wrote no object gives.
  const size_t noObject = kDocument.find("</Meta>") + 7;
  for (size_t n = 0; n < kDocument.size(); ++n) {
    const auto fault = fault_of(std::string_view(kDocument).substr(0, n));
    if (n == noObject) {
      EXPECT_FALSE(fault);
      continue;
    }
    ASSERT_TRUE(fault) << n;
    EXPECT_EQ(fault->offset, n) << fault->what();
  }
  size_t line = 1;
  bool inValue = false;
  for (size_t i = 0; i < kDocument.size(); ++i) {
    const bool quote = kDocument[i] == '"';
    for (const char bit : {'\x01', '\x20', '\x80'}) {
      if (inValue && !quote) break;  // values take other bytes, markup none
      std::string changed = kDocument;
      changed[i] = static_cast<char>(changed[i] ^ bit);
      const auto fault = fault_of(changed);
      ASSERT_TRUE(fault) << i << " ^ " << int{bit};
      EXPECT_EQ(fault->line, line) << i << ": " << fault->what();
    }
    if (quote) inValue = !inValue;
    if (kDocument[i] == '\n') ++line;
  }
}

// Values the exporter can write and near misses it cannot.
TEST(AuditValues, OnlyTheExportersRenderingsPass) {
  const struct {
    const char* type;
    const char* value;
    bool valid;
  } cases[] = {
      {"Boolean", "true", true}, {"Boolean", "True", false}, {"Integer", "-2147483648", true},
      {"Integer", "-2147483649", false}, {"Integer", "-0", false}, {"Index", "007", false},
      {"Unsigned Integer", "4294967295", true}, {"Unsigned Integer", "4294967296", false},
      {"Real", "-0.000000", true}, {"Real", "1.5", false}, {"Real", "-inf", true},
      {"Real", "01.000000", false}, {"Date", "2008-02-29-T23:59:59", true},
      {"Date", "2009-02-29-T00:00:00", false}, {"Date", "1969-12-31-T23:59:59", false},
      {"Date", "10000-01-01-T00:00:00", true}, {"Date", "2008-03-01-T24:00:00", false},
      {"Gid", "0a:00:00:01", true}, {"Gid", "0A:00:00:01", false}, {"GidList", "", true},
      {"GidList", "0a:00:00:01,", false}, {"Blob", "w6k=", true}, {"Blob", "w=6k", false},
      {"BigNum", "0", true}, {"BigNum", "01", false}, {"Const Computed String", "&#0;", true},
      {"Computed Const String", "x", false}, {"Enumeration(65535)", "-4", true},
      {"Enumeration(65536)", "1", false}, {"Enumeration(05)", "1", false}, {"Hidden", "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(audit::is_property_value(c.type, c.value), c.valid) << c.type << " " << c.value;
  }
  for (const char* mask : {"", "0.31", "3"}) EXPECT_TRUE(audit::is_mask_list(mask)) << mask;
  for (const char* mask : {"31.0", "32", "0.", "1.1"}) EXPECT_FALSE(audit::is_mask_list(mask)) << mask;
}

TEST(AuditVerify, CompressedFilesMustBeIntactToTheirEnd) {
  TempDir dir;
  support::write_file(dir.file("d.xml"), kDocument);
  const auto packed = [&](const char* tool) {
    return support::run_process(std::string("/usr/bin/") + tool, {"-c", dir.file("d.xml")}, "", std::chrono::seconds(20)).out;
  };
  const std::string gz = packed("gzip"), zst = packed("zstd");
  ASSERT_TRUE(!gz.empty() && !zst.empty());
  const auto flipped = [](std::string bytes, size_t at) { return bytes[at] = static_cast<char>(bytes[at] ^ 1), bytes; };
  const struct {
    std::string bytes;
    std::optional<std::string> what;
  } cases[] = {
      {gz, std::nullopt},
      {zst, std::nullopt},
      {flipped(gz, gz.size() - 6), "gzip: incorrect data check"},
      {flipped(gz, gz.size() - 2), "gzip: incorrect length check"},
      {gz.substr(0, gz.size() - 1), "gzip: the file ends before the end of the compressed stream (truncated)"},
      {gz + "x", "gzip: data after the end of the compressed stream"},
      {flipped(zst, zst.size() - 1), "zstd: Restored data doesn't match checksum"},
      {zst.substr(0, zst.size() - 1), "zstd: the file ends before the end of the frame (truncated)"},
  };
  for (const auto& c : cases) {
    const auto fault = fault_of(c.bytes);
    EXPECT_EQ(fault ? std::optional<std::string>(fault->what()) : std::nullopt, c.what);
  }
}

TEST(AuditCommandLine, ExitCodesAndMessages) {
  TempDir dir;
  support::write_file(dir.file("ok.xml"), kDocument);
  support::write_file(dir.file("bad.xml"), replace(kDocument, "  <Object id=\"u-amy\"", " <Object id=\"u-amy\""));
  support::write_file(dir.file("sum.xml"), kDocument);
  support::write_file(dir.file("sum.xml.sha256"),
                      support::run_process("/usr/bin/sha256sum", {"sum.xml"}, dir.path(), std::chrono::seconds(20)).out);
  support::write_file(dir.file("wrong.xml"), replace(kDocument, "\"Zed\"", "\"Zoe\""));
  support::write_file(dir.file("wrong.xml.sha256"), support::read_file(dir.file("sum.xml.sha256")));
  const std::string usage = "Usage: talvix-audit verify";
  const struct {
    std::vector<std::string> args;
    int code;
    std::string out, err;  // err: its start
  } cases[] = {
      {{"verify", "D/ok.xml", "D/sum.xml"}, 0, "D/ok.xml: OK\nD/sum.xml: OK, checksum OK\n", ""},
      {{"verify", "D/bad.xml"}, 1, "", "D/bad.xml:20: byte 950: indentation other than two blanks per level\n"},
      {{"verify", "D/wrong.xml"}, 1, "", "D/wrong.xml: SHA-256 differs from the one in D/wrong.xml.sha256\n"},
      {{"verify", "--require-checksum", "D/ok.xml"}, 1, "", "D/ok.xml: no checksum file D/ok.xml.sha256\n"},
      {{"verify", "D/none.xml", "D/bad.xml"}, 2, "", "talvix-audit: D/none.xml: No such file or directory\nD/bad"},
      {{"verify"}, 2, "", "talvix-audit: verify needs at least one file\n" + usage},
      {{"diff", "D/ok.xml"}, 2, "", "talvix-audit: diff needs two files, OLD and NEW\n" + usage},
      {{"stats", "--history", "D/ok.xml"}, 2, "", "talvix-audit: unknown option --history for stats\n" + usage},
      {{"diff", "D/bad.xml", "D/ok.xml"}, 2, "", "D/bad.xml:20: byte 950: "},
      {{}, 2, "", "talvix-audit: no command\n" + usage},
      {{"stats", "--json", "D/ok.xml"}, 0,
       "{\"timestamp\":\"2008-03-01-T00:00:00\",\"container\":\"plain\",\"fileBytes\":7006,"
       "\"documentBytes\":7006,\"lines\":121,\"objects\":17,\"classes\":{\"AlertGroup\":1,"
       "\"AlertPath\":1,\"Check\":3,\"Domain\":3,\"MibModule\":1,\"MibObject\":1,\"Node\":4,"
       "\"Report\":1,\"User\":2},\"properties\":63,\"history\":{\"accumulation\":{\"series\":1,"
       "\"rows\":1},\"continuous\":{\"series\":1,\"rows\":3},\"enum\":{\"series\":1,\"rows\":4},"
       "\"incidents\":{\"series\":1,\"rows\":3},\"sawtooth\":{\"series\":1,\"rows\":1}},"
       "\"firstHistoryTime\":\"1970-01-01-T00:00:00\",\"lastHistoryTime\":\"2008-12-31-T23:59:59\"}\n",
       ""},
  };
  for (const auto& c : cases) {
    const AuditRun run = audit_run(c.args, dir);
    SCOPED_TRACE(run.err);
    EXPECT_EQ(run.code, c.code);
    const auto in_dir = [&](std::string text) {
      for (size_t at; (at = text.find("D/")) != std::string::npos;) text.replace(at, 2, dir.path() + "/");
      return text;
    };
    EXPECT_EQ(run.out, in_dir(c.out));
    EXPECT_EQ(run.err.substr(0, in_dir(c.err).size()), in_dir(c.err));
  }
}

// Each kind of change (and none) between the hand-written document and an
// edited copy, as text lines and as JSON Lines, which Python must read.
TEST(AuditDiff, ReportsEachKindOfChangeByObjectId) {
  TempDir dir;
  support::write_file(dir.file("old.xml"), kDocument);
  const std::string zoe = replace(kDocument, "\"Zed\"", "\"Zoe\"");
  const std::string cont = "~ Check chk-root history cont: 3 rows -> 3 rows";
  const struct {
    std::string now;
    std::vector<std::string> options;
    std::string text, json;
  } cases[] = {
      {replace(kDocument, "2008-03-01-T00:00:00\">", "2009-01-01-T00:00:00\">"), {"--history"}, "", ""},
      {replace(replace(zoe, "    <Property type=\"Boolean\" name=\"enabled\" value=\"false\"/>\n", ""),
               "\"dReal\"", "\"dReal2\""), {},
       "~ User u-zed property fullName: String \"Zed\" -> String \"Zoe\"\n"
       "~ User u-amy property enabled: Boolean \"false\" -> (none)\n"
       "~ Node n-types property dReal2: (none) -> Real \"2.500000\"\n"
       "~ Node n-types property dReal: Real \"2.500000\" -> (none)\n",
       "{\"change\":\"property\",\"id\":\"u-zed\",\"class\":\"User\",\"name\":\"fullName\","
       "\"from\":{\"type\":\"String\",\"value\":\"Zed\"},\"to\":{\"type\":\"String\",\"value\":\"Zoe\"}}\n"
       "{\"change\":\"property\",\"id\":\"u-amy\",\"class\":\"User\",\"name\":\"enabled\","
       "\"from\":{\"type\":\"Boolean\",\"value\":\"false\"},\"to\":null}\n"
       "{\"change\":\"property\",\"id\":\"n-types\",\"class\":\"Node\",\"name\":\"dReal2\","
       "\"from\":null,\"to\":{\"type\":\"Real\",\"value\":\"2.500000\"}}\n"
       "{\"change\":\"property\",\"id\":\"n-types\",\"class\":\"Node\",\"name\":\"dReal\","
       "\"from\":{\"type\":\"Real\",\"value\":\"2.500000\"},\"to\":null}\n"},
      {zoe, {"--ignore", "siblingName,fullName"}, "", ""},
      {support::insert_after(support::without(kDocument, {"ag-1"}), "u-amy",
                             "  <Object id=\"x&#38;1\" type=\"Thing\">\n    <Object id=\"x2\" type=\"Thing\">\n"
                             "    </Object>\n  </Object>\n"), {},
       "+ Thing x&#38;1 in root\n+ Thing x2 in x&#38;1\n- AlertGroup ag-1 in root\n- AlertPath ap-mail in ag-1\n",
       "{\"change\":\"added\",\"id\":\"x&#38;1\",\"class\":\"Thing\",\"parent\":\"root\"}\n"
       "{\"change\":\"added\",\"id\":\"x2\",\"class\":\"Thing\",\"parent\":\"x&#38;1\"}\n"
       "{\"change\":\"removed\",\"id\":\"ag-1\",\"class\":\"AlertGroup\",\"parent\":\"root\"}\n"
       "{\"change\":\"removed\",\"id\":\"ap-mail\",\"class\":\"AlertPath\",\"parent\":\"ag-1\"}\n"},
      {replace(support::insert_after(support::without(kDocument, {"u-zed"}), "ap-mail",
                                     "    <Object id=\"u-zed\" type=\"User\">\n    </Object>\n"),
               "\"n-lab\" type=\"Node\"", "\"n-lab\" type=\"Router\""), {"--ignore", "fullName,siblingName"},
       "> User u-zed from root to ag-1\n~ Router n-lab class Node -> Router\n",
       "{\"change\":\"moved\",\"id\":\"u-zed\",\"class\":\"User\",\"from\":\"root\",\"to\":\"ag-1\"}\n"
       "{\"change\":\"class\",\"id\":\"n-lab\",\"class\":\"Router\",\"from\":\"Node\",\"to\":\"Router\"}\n"},
      {support::without(replace(kDocument, "max=\"12.000000\"", "max=\"13.000000\""), {"saw"}), {}, "", ""},
      {support::without(replace(kDocument, "max=\"12.000000\"", "max=\"13.000000\""), {"saw"}), {"--history"},
       cont + "\n~ Check chk-root history saw: 1 rows -> (none)\n",
       "{\"change\":\"history\",\"id\":\"chk-root\",\"class\":\"Check\",\"name\":\"cont\",\"from\":3,\"to\":3}\n"
       "{\"change\":\"history\",\"id\":\"chk-root\",\"class\":\"Check\",\"name\":\"saw\",\"from\":1,\"to\":null}\n"},
  };
  std::string allJson;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    support::write_file(dir.file("new.xml"), c.now);
    std::vector<std::string> args = {"diff", "D/old.xml", "D/new.xml"};
    args.insert(args.begin() + 1, c.options.begin(), c.options.end());
    const AuditRun text = audit_run(args, dir);
    EXPECT_EQ(text.code, c.text.empty() ? 0 : 1);
    EXPECT_EQ(text.out, c.text);
    args.insert(args.begin() + 1, "--json");
    const AuditRun json = audit_run(args, dir);
    EXPECT_EQ(json.out, c.json);
    allJson += json.out;
  }
  allJson += audit_run({"stats", "--json", "D/old.xml"}, dir).out;
  support::write_file(dir.file("all.json"), allJson);
  EXPECT_EQ(support::run_process("/usr/bin/python3",
                                 {"-c", "import json,sys\nprint(len([json.loads(l) for l in open(sys.argv[1])]))",
                                  dir.file("all.json")}, "", std::chrono::seconds(20)).out,
            "13\n");
}

}  // namespace

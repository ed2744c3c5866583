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

}  // namespace

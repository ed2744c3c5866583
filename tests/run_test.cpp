// The command-line front end to end, with a stand-in export driver and
// password reader: every message, the checks in their order, exit codes and
// the settings handed to the export.
#include "porter/run.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/process.h"
#include "util/error.h"

namespace porter {
namespace {

const char kProgram[] = "./bin/tvx";

// The help text, written out independently of the production code.
std::string usage(const std::string& program) {
  return "Talvix database exporting utility\n"
         "Usage:\n"
         "\n" +
         program +
         "  [-t format] [-s server] [-p port] [-d domain]\n"
         "\t<-l login> [-P password] [-f filename] [-e export-domain] [-h] [-z]\n"
         "\n"
         "   -s server\t: Connect to the server \"server\" (default: localhost)\n"
         "   -p port\t: Connect to the port \"port\" (default: 3241)\n"
         "   -d domain\t: Log into the domain \"domain\" (default: .)\n"
         "   -l login\t: Log in as with the username \"login\".\n"
         "   -P password\t: Log in with the given password. If -P is not used,\n"
         "\t\t the user is asked for the password on the command line\n"
         "   -f filename\t: Save the output in the file \"filename\". If no filename\n"
         "\t\t  is given, output is sent to stdout.\n"
         "   -e domain\t: Export everything under the subdomain \"domain\" (default: .)\n"
         "   -i classes\t: Ignore objects of these classes e.g. MibObject,NodeClass\n"
         "   -I classes\t: Include only these classes e.g. Domain,Node\n"
         "             \t  appending a + will cause all sub-objects to be included\n"
         "   -c\t\t: Export only configuration, no historical data.\n"
         "   -h\t\t: This help text.\n"
         "   -z\t\t: The output will be in gz zipped format.\n"
         "\n"
         "Example: talvix-exporter -ladmin -f backup.dat\n"
         "\n";
}
const std::string kUsage = usage(kProgram);

const char kConsolePassword[] = "typed-secret";

using Edit = std::function<void(RunSettings&)>;
using MakeFile = std::function<void(const std::string& path)>;

struct Case {
  const char* name;
  std::vector<std::string> args;  // without the program name
  int exitCode;
  std::string err;
  // Edits the default settings into those the driver must receive; empty
  // when the driver must not be called.
  Edit exported = nullptr;
  MakeFile file = nullptr;  // makes the file FILE (its path in args, err and settings)
  const char* passwordFailure = nullptr;  // what the password reader returns
  bool exportFails = false;
};

// A settings edit starting from a login "u" with password "pw" given by -P.
Edit with(Edit edit = nullptr) {
  return [edit](RunSettings& s) {
    s.login = "u";
    s.password = "pw";
    s.passwordGiven = true;
    if (edit) edit(s);
  };
}

// The settings of kFileArgs when the file gives `password`.
Edit fromFile(const std::string& password) {
  return [password](RunSettings& s) {
    s.login = "u"; s.password = password; s.extra.passwordFile = "FILE";
  };
}

MakeFile file(const std::string& contents, mode_t mode) {
  return [=](const std::string& path) {
    std::ofstream(path) << contents;
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  };
}

// `text` with every FILE in it replaced by `path`.
std::string withPath(std::string text, const std::string& path) {
  for (size_t at; (at = text.find("FILE")) != std::string::npos;) text.replace(at, 4, path);
  return text;
}

class RunTest : public testing::TestWithParam<Case> {};

TEST_P(RunTest, MessagesExitCodeAndExportedSettings) {
  const Case& c = GetParam();
  support::TempDir dir;
  const std::string path = dir.file("secrets");
  if (c.file) c.file(path);
  std::vector<std::string> args{kProgram};
  for (const std::string& arg : c.args) args.push_back(withPath(arg, path));
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  std::ostringstream err;
  int driverCalls = 0;
  RunSettings received;
  auto driver = [&](const RunSettings& s, RunStatistics&) {
    ++driverCalls;
    received = s;
    if (c.exportFails) throw util::ESystemError("Connection refused");
  };
  int prompts = 0;
  auto reader = [&](char* buffer, size_t size, const char* prompt) -> const char* {
    ++prompts;
    EXPECT_EQ(size, 64u);
    EXPECT_STREQ(prompt, "Password: ");
    std::strcpy(buffer, kConsolePassword);
    return c.passwordFailure;
  };
  EXPECT_EQ(run_command_line(int(args.size()), argv.data(), driver, err, reader), c.exitCode);
  EXPECT_EQ(err.str(), withPath(c.err, path));
  RunSettings want;  // stays `received` when the driver is not called
  if (c.exported) c.exported(want);
  EXPECT_EQ(prompts, c.passwordFailure != nullptr || want.password == kConsolePassword ? 1 : 0);
  want.extra.passwordFile = withPath(want.extra.passwordFile, path);
  want.extra.tlsSettings.certFile = withPath(want.extra.tlsSettings.certFile, path);
  EXPECT_EQ(driverCalls, c.exported ? 1 : 0);
  EXPECT_EQ(received, want);
  for (const std::string& arg : args) {
    if (!want.passwordGiven || want.password.empty()) break;
    EXPECT_TRUE(arg != want.password && (arg.size() < 2 || arg.substr(2) != want.password))
        << "-P value left in the arguments";
  }
}

const std::string kHint = "'./bin/tvx -h' for help.\n";
const std::vector<std::string> kFileArgs{"-lu", "-opassword-file=FILE"};
const std::string kLongest(kPasswordFileLineLimit, 'p');

const Case kCases[] = {
    // Help and option errors.
    {"HelpStopsScanning", {"-lu", "-hz", "-x"}, 0, kUsage},
    {"UnknownBeforeHelp", {"-", "-h"}, 1, "Error: - is not a valid option. \n" + kHint},
    {"StrayWord", {"admin"}, 1,
     "Error: admin is not a valid option. Probably a missing option flag.\n" + kHint},
    {"MissingValueAtEnd", {"-lu", "-P"}, 1, "Error: Option -P needs a argument.\n" + kHint},
    {"IgnoredThenIncluded", {"-iA", "-IB"}, 1,
     "Error: -i and -I may be given at most once\n" + kHint},

    // Values and settings that pass; a value goes right after its letter or
    // in the next argument, and -cz is -c alone.
    {"EveryOption",
     {"-tbin", "-s", "srv", "-p", "4000", "-d", "dom", "/l", "u", "/P", "pw", "-f", "out", "-e",
      "a.b", "-c", "-z", "-i", "X, Y", "-oquiet=1,progress=1"},
     0, "Exporting database using gz \nDone\n", with([](RunSettings& s) {
       s.format = "bin"; s.server = "srv"; s.port = 4000; s.loginDomain = "dom";
       s.outputFileName = "out"; s.exportDomain = "a.b"; s.history = false; s.gzip = true;
       s.classFilter.ignored = {"X", "Y"}; s.extra.progress = ProgressMode::kDisplay;
     })},
    // An empty list does not count as the one -i or -I.
    {"EmptyListThenIncludedWithSubtree", {"-i", ", ,", "-IDomain,Node+", "-lu", "-Ppw"}, 0, "",
     with([](RunSettings& s) {
       s.classFilter.included = {"Domain", "Node"};
       s.classFilter.includedWithSubtree = {"Node"};
     })},

    // -o settings add up over the options; a bad value stops before the
    // export; a quiet file export has no frame, and its failure still ends
    // with its message. (A file export with progress is framed: EveryOption.)
    {"SettingBadValue", {"-o", "level=x"}, 1,
     "Error: bad value \"x\" for -o level: expected a whole number from 0 to 9\n" + kHint},
    // The level's range follows the compressor chosen by any -o.
    {"ZstdLevelCheckedAtTheEnd", {"-o", "level=0", "-o", "compress=zstd"}, 1,
     "Error: bad value \"0\" for -o level: expected a whole number from 1 to 19 with "
     "compress=zstd\n" + kHint},
    {"GzipAgainLevelCheckedAtTheEnd", {"-o", "compress=zstd,level=19,compress=gzip"}, 1,
     "Error: bad value \"19\" for -o level: expected a whole number from 0 to 9\n" + kHint},
    // A report that cannot be written fails a finished export.
    {"ZstdReportNotWritable", {"-lu", "-Ppw", "-z", "-fout", "-o", "level=19,compress=zstd,report=/dev/null/r"},
     1, "Exporting database using gz \nDone\nError\nError opening: /dev/null/r: Not a directory\n",
     with([](RunSettings& s) {
       s.outputFileName = "out"; s.gzip = true; s.extra.level = 19; s.extra.reportFile = "/dev/null/r";
       s.extra.compression = Compression::kZstd; })},
    {"QuietFailureKeepsItsMessage",
     {"-lu", "-Ppw", "-fout", "-otimeout=7,progress=1", "-o", "quiet=1"}, 1,
     "Error\nConnection refused\n", with([](RunSettings& s) {
       s.outputFileName = "out"; s.extra.timeout = 7; s.extra.progress = ProgressMode::kQuiet;
     }), nullptr, nullptr, true},
    {"SettingsHelpStopsScanning", {"-o", "level=3,help", "-x"}, 0,
     "Settings of -o (a comma-separated list of name=value):\n"
     "  pipeline=N   keep up to N requests (1 to 4096) in flight; 1 is sequential\n"
     "  progress=1   show a live progress display instead of the dots\n"
     "  quiet=1      no progress marks (for unattended runs); notices and errors still show;\n"
     "               of progress and quiet the later one in the list wins\n"
     "  atomic=1     with -f: write a temporary file and rename it over the target only on "
     "success;\n"
     "               a target that is not a regular file (FIFO, device) is written directly\n"
     "  timeout=S    give up when connecting or a wait for the server makes no progress for S "
     "seconds\n"
     "  reconnect=N  when the connection fails, connect and log in again up to N times in a row\n"
     "               (1 to 100; 0, the default, never) and go on where the export was\n"
     "  reconnect-wait=S  seconds (decimals allowed, default 1) before the first try to reconnect,\n"
     "               doubled for each further try, at most 60\n"
     "  level=N      compression level for -z: gzip 0 (none) to 9 (best), default 6;\n"
     "               zstd 1 (fastest) to 19 (best), default 1\n"
     "  checksum=1   with -f: after the finished document write <file>.sha256 in sha256sum's format\n"
     "               (replaced atomically; a failed export leaves an earlier one as it was)\n"
     "  password-file=PATH  without -P: log in with the first line of the file PATH, which\n"
     "               must be a regular file that neither group nor others may read\n"
     "  compress=C   the compressor of -z: gzip (the default) or zstd\n"
     "  report=PATH  at the end of the run, success or failure, write a report of it (JSON)\n"
     "               to PATH, replacing it whole\n"
     "  metrics=PATH at the end of the run, write its metrics (Prometheus text format) to PATH,\n"
     "               replacing it whole; a failed run keeps the time of the last success\n"
     "  tls=1        connect with TLS 1.2 or later; the server's certificate must be valid for\n"
     "               the -s host (or tls-name) and trusted by the system (or tls-ca)\n"
     "  tls-ca=PATH  with tls=1: trust only the CA certificates of the PEM file PATH\n"
     "  tls-name=NAME  with tls=1: the name the server's certificate must carry (default: the -s host)\n"
     "  tls-cert=PATH  with tls=1: present the PEM client certificate PATH\n"
     "  tls-key=PATH  the PEM private key of tls-cert, a regular file that neither group nor\n"
     "               others may read (default: tls-cert's file)\n"
     "  help         print this list and exit\n"},

    // The checks after scanning, in their order (the missing login is
    // NoArgumentsMissLogin below).
    {"GzipCheckedBeforeLogin", {"-z", "-tjson"}, 1,
     "Error: when using -z flag you must also use the -f flag.\n"},
    {"UnknownFormatGoesOn", {"-t", "json", "-lu", "-Ppw"}, 0,
     "Error: nu such format : 'json'\n" + kUsage, with([](RunSettings& s) { s.format = "json"; })},

    // The password.
    {"PromptWithoutP", {"-cz", "-lu"}, 0, "", [](RunSettings& s) {
       s.login = "u"; s.password = kConsolePassword; s.history = false;
     }},
    {"PromptFails", {"-lu", "-fout"}, 1, "Error getting password\n", nullptr, nullptr,
     "Could not open CONIN$"},
    // Without -P the password file stands in for the prompt; its failures
    // end the run before the export, and so before any connection.
    {"PasswordFileFirstLine", kFileArgs, 0, "", fromFile("s3cret"),
     file("s3cret\r\nsecond\n", 0600)},
    {"PasswordFileLongestOnlyLine", kFileArgs, 0, "", fromFile(kLongest), file(kLongest, 0400)},
    {"PasswordFileLineTooLong", kFileArgs, 1,
     "Error\nPassword file FILE: its first line is longer than 4096 bytes\n", nullptr,
     file(kLongest + "p\n", 0600)},
    {"PasswordFileReadableByOthers", kFileArgs, 1,
     "Error\nPassword file FILE may be read by others (mode 0644): allow its owner alone, e.g. "
     "chmod 600 FILE\n", nullptr, file("s3cret\n", 0644)},
    {"PasswordFileMissing", kFileArgs, 1,
     "Error\nError reading password file FILE: No such file or directory\n"},
    {"PasswordFileDirectory", kFileArgs, 1, "Error\nPassword file FILE is not a regular file\n",
     nullptr, [](const std::string& path) { mkdir(path.c_str(), 0700); }},
    // A TLS key file is held to the same rule, before any connection.
    {"TlsKeyFile", {"-lu", "-Ppw", "-otls=1,tls-cert=FILE"}, 0, "", with([](RunSettings& s) {
       s.extra.tls = true; s.extra.tlsSettings.certFile = "FILE";
     }), file("key", 0600)},
    {"TlsKeyReadableByOthers", {"-lu", "-Ppw", "-otls=1,tls-cert=c.pem,tls-key=FILE"}, 1,
     "Error\nTLS key file FILE may be read by others (mode 0640): allow its owner alone, e.g. "
     "chmod 600 FILE\n", nullptr, file("key", 0640)},
    // -P, even empty, keeps its meaning: the file is not even looked at.
    {"EmptyPWinsOverPasswordFile", {"-lu", "-P", "", "-opassword-file=FILE"}, 0, "",
     with([](RunSettings& s) { s.password = ""; s.extra.passwordFile = "FILE"; })},
};

INSTANTIATE_TEST_SUITE_P(Table, RunTest, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Without any argument, not even the program's name, the login is missing;
// the defaults every table row starts from are those the usage text promises.
TEST(RunCommandLineTest, NoArgumentsMissLoginAndDefaultsAreDocumented) {
  char* argv[] = {nullptr};
  std::ostringstream err;
  EXPECT_EQ(run_command_line(0, argv, [](const RunSettings&, RunStatistics&) { ADD_FAILURE(); }, err), 1);
  EXPECT_EQ(err.str(), "Error: Missing login argument!\n\n" + usage(""));
  const RunSettings s;
  EXPECT_EQ(s.format + " " + s.server + " " + std::to_string(s.port) + " " + s.loginDomain + " " +
                s.exportDomain,
            "xml localhost 3241 . .");
  EXPECT_TRUE(s.history);
  EXPECT_FALSE(s.gzip || s.passwordGiven);
}

}  // namespace
}  // namespace porter

// The command-line front end to end, with a stand-in export driver and
// password reader: every message, the checks in their order, exit codes and
// the settings handed to the export.
#include "porter/run.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "support/e2e_process.h"
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
const std::string kHint = "'./bin/tvx -h' for help.\n";

enum class Driver { kSucceeds, kConnectError, kSystemError, kForeignError };

const char kConsolePassword[] = "typed-secret";

using Edit = std::function<void(RunSettings&)>;

struct Case {
  const char* name;
  std::vector<std::string> args;  // without the program name
  int exitCode;
  std::string err;
  // Edits the default settings into those the driver must receive; empty
  // when the driver must not be called.
  Edit exported = nullptr;
  bool prompts = false;                   // the password reader is asked
  const char* passwordFailure = nullptr;  // what the reader returns
  Driver driver = Driver::kSucceeds;
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

class RunTest : public testing::TestWithParam<Case> {};

TEST_P(RunTest, MessagesExitCodeAndExportedSettings) {
  const Case& c = GetParam();
  std::vector<std::string> storage{kProgram};
  storage.insert(storage.end(), c.args.begin(), c.args.end());
  std::vector<char*> argv;
  for (std::string& s : storage) argv.push_back(s.data());

  std::ostringstream err;
  int driverCalls = 0;
  RunSettings received;
  auto driver = [&](const RunSettings& s) {
    ++driverCalls;
    received = s;
    // The progress line of a file export is out before the export starts.
    EXPECT_TRUE(s.outputFileName.empty() || s.extra.progress == ProgressMode::kQuiet ||
                err.str().find("Exporting database") != std::string::npos)
        << err.str();
    util::ESystemError systemError("Connection refused");
    systemError.detail = ", while connecting";
    if (c.driver == Driver::kConnectError) throw util::EConnectError("Wrong username / password");
    if (c.driver == Driver::kSystemError) throw systemError;
    if (c.driver == Driver::kForeignError) throw std::bad_alloc();
  };
  int prompts = 0;
  auto reader = [&](char* buffer, size_t size, const char* prompt) -> const char* {
    ++prompts;
    EXPECT_EQ(size, 64u);
    EXPECT_STREQ(prompt, "Password: ");
    std::strcpy(buffer, kConsolePassword);
    return c.passwordFailure;
  };

  argv.push_back(nullptr);
  int code = -1;
  auto run = [&] { code = run_command_line(int(storage.size()), argv.data(), driver, err, reader); };
  if (c.driver == Driver::kForeignError) {
    EXPECT_THROW(run(), std::bad_alloc);  // not the tool's own failures: passed on untouched
  } else {
    run();
  }
  EXPECT_EQ(code, c.exitCode);
  EXPECT_EQ(err.str(), c.err);
  EXPECT_EQ(prompts, c.prompts ? 1 : 0);
  if (c.exported) {
    RunSettings want;
    c.exported(want);
    EXPECT_EQ(driverCalls, 1);
    EXPECT_EQ(received, want);
    for (const std::string& arg : storage) {
      if (!want.passwordGiven || want.password.empty()) break;
      EXPECT_EQ(arg.find(want.password), std::string::npos) << "-P value left in the arguments";
    }
  } else {
    EXPECT_EQ(driverCalls, 0);
  }
}

const std::string kNotValid = " is not a valid option. \n" + kHint;
const std::string kMissingLogin = "Error: Missing login argument!\n\n" + kUsage;
const std::string kToGzipFile = "Exporting database using gz \nDone\n";

const Case kCases[] = {
    // Help and option errors.
    {"HelpStopsScanning", {"-lu", "-hz", "-x"}, 0, kUsage},
    {"UnknownBeforeHelp", {"-", "-h"}, 1, "Error: -" + kNotValid},
    {"StrayWord", {"admin"}, 1,
     "Error: admin is not a valid option. Probably a missing option flag.\n" + kHint},
    {"MissingValueAtEnd", {"-lu", "-P"}, 1, "Error: Option -P needs a argument.\n" + kHint},
    {"PortTrailingTab", {"-lu", "-p", "12\t"}, 1, "Error\nError parsing: \"12\\t\"\n"},
    {"IgnoredThenIncluded", {"-iA", "-IB"}, 1,
     "Error: -i and -I may be given at most once\n" + kHint},

    // Values and settings that pass.
    {"ValueJoinedWithSlash", {"-lu", "-Ppw", "-f/tmp/x"}, 0, "Exporting database\nDone\n",
     with([](RunSettings& s) { s.outputFileName = "/tmp/x"; })},
    {"SlashOption", {"/l", "u", "/P", "pw"}, 0, "", with()},
    {"FlagsDoNotCombine", {"-cz", "-lu", "-Ppw"}, 0, "",
     with([](RunSettings& s) { s.history = false; })},
    {"PortWithLeadingTab", {"-lu", "-Ppw", "-p", "\t12"}, 0, "",
     with([](RunSettings& s) { s.port = 12; })},
    {"EveryOption",
     {"-tbin", "-s", "srv", "-p", "4000", "-d", "dom", "-l", "u", "-P", "pw", "-f", "out", "-e",
      "a.b", "-c", "-z", "-i", "X, Y"},
     0, kToGzipFile, with([](RunSettings& s) {
       s.format = "bin"; s.server = "srv"; s.port = 4000; s.loginDomain = "dom";
       s.outputFileName = "out"; s.exportDomain = "a.b"; s.history = false; s.gzip = true;
       s.classFilter.ignored = {"X", "Y"};
     })},
    {"EmptyFirstListDoesNotCount", {"-i", ", ,", "-iA", "-lu", "-Ppw"}, 0, "",
     with([](RunSettings& s) { s.classFilter.ignored = {"A"}; })},
    {"IncludedWithSubtree", {"-IDomain,Node+", "-lu", "-Ppw"}, 0, "", with([](RunSettings& s) {
       s.classFilter.included = {"Domain", "Node"};
       s.classFilter.includedWithSubtree = {"Node"};
     })},

    // -o settings: a known name with a bad value stops before the export;
    // unknown names are ignored while the known ones around them apply, and
    // a later value wins.
    {"SettingBadValueAfterGoodOnes", {"-lu", "-Ppw", "-o", "level=3", "-o", "colour=red,level=x"},
     1, "Error: bad value \"x\" for -o level: expected a whole number from 0 to 9\n" + kHint},
    {"SettingUnknownNameIgnored",
     {"-lu", "-Ppw", "-o", "colour=red,timeout=7,pipeline=16", "-opipeline=3,x=y"}, 0, "",
     with([](RunSettings& s) { s.extra.timeout = 7; s.extra.pipeline = 3; })},
    // Of progress and quiet the later wins; a quiet file export has no frame,
    // and a quiet failure still ends with its message.
    {"QuietFileExportHasNoFrame", {"-lu", "-Ppw", "-fout", "-oprogress=1", "-o", "quiet=1"}, 0, "",
     with([](RunSettings& s) { s.outputFileName = "out"; s.extra.progress = ProgressMode::kQuiet; })},
    {"ProgressAfterQuietFramed", {"-lu", "-Ppw", "-fout", "-oquiet=1,progress=1"}, 0,
     "Exporting database\nDone\n", with([](RunSettings& s) {
       s.outputFileName = "out"; s.extra.progress = ProgressMode::kDisplay;
     })},
    {"QuietFailureKeepsItsMessage", {"-lu", "-Ppw", "-fout", "-oquiet=1"}, 1,
     "Error\nConnection refused, while connecting\n",
     with([](RunSettings& s) { s.outputFileName = "out"; s.extra.progress = ProgressMode::kQuiet; }),
     false, nullptr, Driver::kSystemError},
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
     "  level=N      gzip compression level 0 (none) to 9 (best) for -z\n"
     "  password-file=PATH  without -P: log in with the first line of the file PATH, which\n"
     "               must be a regular file that neither group nor others may read\n"
     "  help         print this list and exit\n"},

    // The checks after scanning, in their order.
    {"GzipCheckedBeforeLogin", {"-z", "-tjson"}, 1,
     "Error: when using -z flag you must also use the -f flag.\n"},
    {"UnknownFormatGoesOn", {"-t", "json", "-lu", "-Ppw"}, 0,
     "Error: nu such format : 'json'\n" + kUsage, with([](RunSettings& s) { s.format = "json"; })},
    {"UnknownFormatThenMissingLogin", {"-tjson"}, 1,
     "Error: nu such format : 'json'\n" + kUsage + kMissingLogin},

    // The password.
    {"EmptyPasswordGivenNoPrompt", {"-lu", "-P", ""}, 0, "",
     with([](RunSettings& s) { s.password = ""; })},
    {"PromptWithoutP", {"-lu"}, 0, "",
     [](RunSettings& s) { s.login = "u"; s.password = kConsolePassword; }, true},
    {"PromptFails", {"-lu", "-fout"}, 1, "Error getting password\n", nullptr, true,
     "Could not open CONIN$"},

    // Failures of the export (a refused login while writing a file is in
    // e2e_test).
    {"LoginRefused", {"-lu", "-Ppw", "-s", "srv"}, 1,
     "Failed connecting to server srv\nWrong username / password\n",
     with([](RunSettings& s) { s.server = "srv"; }), false, nullptr, Driver::kConnectError},
    {"ForeignFailurePassesThrough", {"-lu", "-Ppw"}, -1, "", with(), false, nullptr,
     Driver::kForeignError},
};

INSTANTIATE_TEST_SUITE_P(Table, RunTest, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The password file stands in for the prompt when -P is absent; its failures
// end the run before the export, and so before any connection.
struct PasswordFileCase {
  const char* name;
  std::function<void(const std::string& path)> prepare;  // makes the file, if anything
  std::vector<std::string> args;  // after -lu -o password-file=<path>
  std::string err;                // "PATH" stands for the file's path
  std::string password = "";      // handed to the export when err is ""
};
void PrintTo(const PasswordFileCase& c, std::ostream* os) { *os << c.name; }

std::function<void(const std::string&)> file(const std::string& contents, mode_t mode) {
  return [=](const std::string& path) {
    std::ofstream(path) << contents;
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  };
}

class PasswordFileTest : public testing::TestWithParam<PasswordFileCase> {};

TEST_P(PasswordFileTest, GivesThePasswordOrStopsBeforeTheExport) {
  const PasswordFileCase& c = GetParam();
  support::TempDir dir;
  const std::string path = dir.file("pw");
  if (c.prepare) c.prepare(path);
  std::vector<std::string> storage{kProgram, "-lu", "-o", "password-file=" + path};
  storage.insert(storage.end(), c.args.begin(), c.args.end());
  std::vector<char*> argv;
  for (std::string& s : storage) argv.push_back(s.data());
  argv.push_back(nullptr);

  std::ostringstream err;
  std::optional<std::string> exported;
  const int code = run_command_line(
      int(storage.size()), argv.data(), [&](const RunSettings& s) { exported = s.password; }, err,
      [](char*, size_t, const char*) -> const char* {
        ADD_FAILURE() << "prompted";
        return "Could not open CONIN$";
      });
  std::string expectedErr = c.err;
  for (size_t at; (at = expectedErr.find("PATH")) != std::string::npos;) {
    expectedErr.replace(at, 4, path);
  }
  EXPECT_EQ(err.str(), expectedErr);
  EXPECT_EQ(code, c.err.empty() ? 0 : 1);
  EXPECT_EQ(exported, c.err.empty() ? std::optional(c.password) : std::nullopt);
}

const std::string kLongest(kPasswordFileLineLimit, 'p');

INSTANTIATE_TEST_SUITE_P(
    Table, PasswordFileTest,
    testing::Values(
        PasswordFileCase{"FirstLineWithoutItsEnd", file("s3cret\r\nsecond\n", 0600), {}, "", "s3cret"},
        PasswordFileCase{"OnlyLineWithoutEnd", file("s3cret", 0400), {}, "", "s3cret"},
        PasswordFileCase{"LongestLine", file(kLongest + "\n", 0600), {}, "", kLongest},
        PasswordFileCase{"LineTooLong", file(kLongest + "p\n", 0600), {},
                         "Error\nPassword file PATH: its first line is longer than 4096 bytes\n"},
        PasswordFileCase{"ReadableByOthers", file("s3cret\n", 0644), {},
                         "Error\nPassword file PATH may be read by others (mode 0644): allow its "
                         "owner alone, e.g. chmod 600 PATH\n"},
        PasswordFileCase{"Missing", nullptr, {},
                         "Error\nError reading password file PATH: No such file or directory\n"},
        PasswordFileCase{"Directory", [](const std::string& path) { mkdir(path.c_str(), 0700); }, {},
                         "Error\nPassword file PATH is not a regular file\n"},
        // -P keeps its meaning: the file is not even looked at.
        PasswordFileCase{"PWins", nullptr, {"-Ppw"}, "", "pw"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RunCommandLineTest, EmptyArgumentListUsesEmptyProgramName) {
  char* argv[] = {nullptr};
  std::ostringstream err;
  int calls = 0;
  EXPECT_EQ(run_command_line(0, argv, [&](const RunSettings&) { ++calls; }, err), 1);
  EXPECT_EQ(err.str(), "Error: Missing login argument!\n\n" + usage(""));
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace porter

// Option scanning and class lists.
#include "porter/options.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "porter/class_filter.h"

namespace porter {
namespace {

using Step = std::pair<int, std::optional<std::string>>;
constexpr std::nullopt_t kNone = std::nullopt;

struct ScanCase {
  const char* name;
  std::vector<std::string> args;  // without the program name
  std::vector<Step> steps;        // results up to and including the end (0)
};

std::ostream& operator<<(std::ostream& out, const ScanCase& c) { return out << c.name; }

class NextOptionTest : public testing::TestWithParam<ScanCase> {};

TEST_P(NextOptionTest, ScansArgumentsInOrder) {
  const ScanCase& c = GetParam();
  std::vector<std::string> storage{"prog"};
  storage.insert(storage.end(), c.args.begin(), c.args.end());
  std::vector<char*> argv;
  for (std::string& s : storage) argv.push_back(s.data());
  argv.push_back(nullptr);
  const int argc = static_cast<int>(storage.size());

  reset_option_scanner();
  EXPECT_EQ(option_index, 1);
  std::vector<Step> got;
  std::optional<std::string> value;
  // Bounded: a scanner that stops advancing fails instead of hanging.
  for (int i = 0; i < 20; ++i) {
    int result = next_option(argc, argv.data(), kOptionString, value);
    got.emplace_back(result, value);
    if (result == kOptionsEnd) break;
  }
  EXPECT_EQ(got, c.steps);
  EXPECT_EQ(option_index, argc);
}

const ScanCase kScanCases[] = {
    {"NoArguments", {}, {{0, kNone}}},
    {"ValueJoined", {"-ladmin"}, {{'l', "admin"}, {0, kNone}}},
    {"ValueSeparate", {"-l", "admin"}, {{'l', "admin"}, {0, kNone}}},
    {"SlashIntroducesOption", {"/l", "admin"}, {{'l', "admin"}, {0, kNone}}},
    // The value may not begin with '/': "/tmp/x" is then option t itself.
    {"SlashValueNotTaken", {"-f", "/tmp/x"}, {{'f', kNone}, {'t', "mp/x"}, {0, kNone}}},
    {"SlashValueJoined", {"-f/tmp/x"}, {{'f', "/tmp/x"}, {0, kNone}}},
    {"DashValueNotTaken", {"-l", "-c"}, {{'l', kNone}, {'c', kNone}, {0, kNone}}},
    {"EmptyNextArgumentIsValue", {"-p", ""}, {{'p', ""}, {0, kNone}}},
    {"ValueMissingAtEnd", {"-P"}, {{'P', kNone}, {0, kNone}}},
    {"RestOfFlagIgnored", {"-cz"}, {{'c', kNone}, {0, kNone}}},
    {"HelpIgnoresRest", {"-hx", "-z"}, {{'h', kNone}, {'z', kNone}, {0, kNone}}},
    {"ColonIsALetterWithoutValue", {"-:", "x"}, {{':', kNone}, {1, "x"}, {0, kNone}}},
    {"UnknownLetter", {"-x"}, {{-1, "-x"}, {0, kNone}}},
    {"LettersAreCaseSensitive", {"-L"}, {{-1, "-L"}, {0, kNone}}},
    {"DashAlone", {"-"}, {{-1, "-"}, {0, kNone}}},
    {"SlashAlone", {"/"}, {{-1, "/"}, {0, kNone}}},
    {"BlankAfterDash", {"- l"}, {{-1, "- l"}, {0, kNone}}},
    {"NonAsciiAfterDash", {"-\xe9"}, {{-1, "-\xe9"}, {0, kNone}}},
    {"StrayWord", {"admin", "-c"}, {{1, "admin"}, {'c', kNone}, {0, kNone}}},
    {"EmptyArgumentIsStray", {""}, {{1, ""}, {0, kNone}}},
    {"PlusListValue", {"-I", "Domain,Node+"}, {{'I', "Domain,Node+"}, {0, kNone}}},
};

INSTANTIATE_TEST_SUITE_P(Table, NextOptionTest, testing::ValuesIn(kScanCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(NextOptionTest, EmptyArgumentListEndsAtOnce) {
  char* argv[] = {nullptr};
  std::optional<std::string> value = "stale";
  reset_option_scanner();
  EXPECT_EQ(next_option(0, argv, kOptionString, value), kOptionsEnd);
  EXPECT_FALSE(value.has_value());
}

TEST(RunSettingsTest, DefaultsAreThoseOfARunWithoutOptions) {
  RunSettings s;
  EXPECT_EQ(s.format, "xml");
  EXPECT_EQ(s.server, "localhost");
  EXPECT_EQ(s.port, 3241);
  EXPECT_EQ(s.loginDomain, ".");
  EXPECT_EQ(s.login, "");
  EXPECT_EQ(s.password, "");
  EXPECT_FALSE(s.passwordGiven);
  EXPECT_EQ(s.outputFileName, "");
  EXPECT_EQ(s.exportDomain, ".");
  EXPECT_TRUE(s.history);
  EXPECT_FALSE(s.gzip);
  EXPECT_EQ(s.classFilter, ClassFilter{});
}

using Names = std::set<std::string>;

struct ListCase {
  const char* name;
  bool included;  // add_included_classes, else add_ignored_classes
  std::string list;
  Names wantIncluded, wantIgnored, wantSubtree;
};

class ClassListTest : public testing::TestWithParam<ListCase> {};

TEST_P(ClassListTest, SplitsIntoTheRightSets) {
  const ListCase& c = GetParam();
  ClassFilter f;
  if (c.included) {
    add_included_classes(f, c.list);
  } else {
    add_ignored_classes(f, c.list);
  }
  EXPECT_EQ(f.included, c.wantIncluded);
  EXPECT_EQ(f.ignored, c.wantIgnored);
  EXPECT_EQ(f.includedWithSubtree, c.wantSubtree);
}

const ListCase kListCases[] = {
    {"IgnoredCommas", false, "Domain,,Node", {}, {"Domain", "Node"}, {}},
    {"IgnoredCommaBlank", false, "Domain, Node", {}, {"Domain", "Node"}, {}},
    {"IgnoredBlanksOnly", false, " Node  Domain ", {}, {"Domain", "Node"}, {}},
    {"IgnoredSeparatorsOnly", false, " ,, ", {}, {}, {}},
    {"IgnoredTabIsNotASeparator", false, "A\tB", {}, {"A\tB"}, {}},
    {"IgnoredPlusKept", false, "Node+", {}, {"Node+"}, {}},
    {"IncludedPlain", true, "Domain,Node", {"Domain", "Node"}, {}, {}},
    {"IncludedSubtree", true, "Domain,Node+", {"Domain", "Node"}, {}, {"Node"}},
    {"IncludedPlusAlone", true, "+", {""}, {}, {""}},
    {"IncludedOnePlusStripped", true, "Node++", {"Node+"}, {}, {"Node+"}},
    {"IncludedBothForms", true, "A A+", {"A"}, {}, {"A"}},
    {"IncludedSeparatorsOnly", true, ", ", {}, {}, {}},
};

INSTANTIATE_TEST_SUITE_P(Table, ClassListTest, testing::ValuesIn(kListCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ClassListTest, ListsAddToWhatIsThere) {
  ClassFilter f;
  add_ignored_classes(f, "B");
  add_ignored_classes(f, "A,B");
  add_included_classes(f, "C+");
  add_included_classes(f, "D");
  EXPECT_EQ(f.ignored, (Names{"A", "B"}));
  EXPECT_EQ(f.included, (Names{"C", "D"}));
  EXPECT_EQ(f.includedWithSubtree, (Names{"C"}));
}

}  // namespace
}  // namespace porter

// Option scanning and class lists, the cases the whole command line in
// run_test does not show: what the scanner makes of each argument.
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

class NextOptionTest : public testing::TestWithParam<ScanCase> {};

TEST_P(NextOptionTest, ScansArgumentsInOrder) {
  std::vector<std::string> storage{"prog"};
  storage.insert(storage.end(), GetParam().args.begin(), GetParam().args.end());
  std::vector<char*> argv;
  for (std::string& s : storage) argv.push_back(s.data());
  argv.push_back(nullptr);
  const int argc = static_cast<int>(storage.size());

  OptionScanner scanner(argc, argv.data(), kOptionString);
  std::vector<Step> got;
  std::optional<std::string> value;
  // Bounded: a scanner that stops advancing fails instead of hanging.
  for (int i = 0; i < 20; ++i) {
    got.emplace_back(scanner.next(value), value);
    if (got.back().first == kOptionsEnd) break;
  }
  EXPECT_EQ(got, GetParam().steps);
  EXPECT_EQ(scanner.index(), argc);
}

const ScanCase kScanCases[] = {
    // A separate value may not begin with '/': "/tmp/x" is then option t itself.
    {"SlashValueNotTaken", {"-f", "/tmp/x"}, {{'f', kNone}, {'t', "mp/x"}, {0, kNone}}},
    {"DashValueNotTaken", {"-l", "-c"}, {{'l', kNone}, {'c', kNone}, {0, kNone}}},
    {"EmptyNextArgumentIsValue", {"-p", ""}, {{'p', ""}, {0, kNone}}},
    {"HelpIgnoresRestOfFlag", {"-hx", "-z"}, {{'h', kNone}, {'z', kNone}, {0, kNone}}},
    {"ColonIsALetterWithoutValue", {"-:", "x"}, {{':', kNone}, {1, "x"}, {0, kNone}}},
    {"NonAsciiAfterDash", {"-\xe9"}, {{-1, "-\xe9"}, {0, kNone}}},
    {"SlashAlone", {"/"}, {{-1, "/"}, {0, kNone}}},
    {"EmptyArgumentIsStray", {""}, {{1, ""}, {0, kNone}}},
};

INSTANTIATE_TEST_SUITE_P(Table, NextOptionTest, testing::ValuesIn(kScanCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The defaults the usage text promises.
TEST(RunSettingsTest, DefaultsAreTheDocumentedOnes) {
  const RunSettings s;
  EXPECT_EQ(s.format + " " + s.server + " " + std::to_string(s.port) + " " + s.loginDomain + " " +
                s.exportDomain,
            "xml localhost 3241 . .");
  EXPECT_TRUE(s.history);
  EXPECT_FALSE(s.gzip || s.passwordGiven);
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
  c.included ? add_included_classes(f, c.list) : add_ignored_classes(f, c.list);
  EXPECT_EQ(f.included, c.wantIncluded);
  EXPECT_EQ(f.ignored, c.wantIgnored);
  EXPECT_EQ(f.includedWithSubtree, c.wantSubtree);
}

const ListCase kListCases[] = {
    {"IgnoredCommasAndBlanks", false, " Domain,, Node  X ", {}, {"Domain", "Node", "X"}, {}},
    {"IgnoredSeparatorsOnly", false, " ,, ", {}, {}, {}},
    {"IgnoredTabIsNotASeparator", false, "A\tB", {}, {"A\tB"}, {}},
    {"IgnoredPlusKept", false, "Node+", {}, {"Node+"}, {}},
    {"IncludedSubtree", true, "Domain,Node+", {"Domain", "Node"}, {}, {"Node"}},
    {"IncludedPlusAlone", true, "+", {""}, {}, {""}},
    {"IncludedOnePlusStripped", true, "Node++", {"Node+"}, {}, {"Node+"}},
    {"IncludedBothForms", true, "A A+", {"A"}, {}, {"A"}},
};

INSTANTIATE_TEST_SUITE_P(Table, ClassListTest, testing::ValuesIn(kListCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace porter

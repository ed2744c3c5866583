// The -o settings text; how the command line reports a complaint, prints the
// help and hands the settings on is in run_test.
#include "porter/extra_settings.h"

#include <gtest/gtest.h>

namespace {

using porter::ExtraSettings;
using porter::ProgressMode;

ExtraSettings with(void (*change)(ExtraSettings&)) {
  ExtraSettings s;
  change(s);
  return s;
}

struct ApplyCase {
  const char* name;
  const char* text;
  std::string complaint;
  ExtraSettings expected = {};
};

class ApplyExtraSettingsTest : public testing::TestWithParam<ApplyCase> {};

TEST_P(ApplyExtraSettingsTest, GivesSettingsOrComplaint) {
  ExtraSettings settings;
  EXPECT_EQ(porter::apply_extra_settings(GetParam().text, settings), GetParam().complaint);
  if (GetParam().complaint.empty()) {
    EXPECT_EQ(settings, GetParam().expected);
  }
}

// The complaint about `value` for the setting `name`.
std::string bad(const std::string& value, const std::string& name, const std::string& expected) {
  return "bad value " + value + " for -o " + name + ": expected " + expected;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ApplyExtraSettingsTest,
    testing::Values(
        ApplyCase{"Empty", "", "", ExtraSettings{}},
        // A bare known name other than help is ignored like an unknown one.
        ApplyCase{"UnknownBareAndEmptyPiecesIgnored", ",,colour=blue,pipeline,,pipeline=2,", "",
                  with([](ExtraSettings& s) { s.pipeline = 2; })},
        ApplyCase{"LowerLimits", "pipeline=1,level=0,timeout=1,progress=0,atomic=off", "",
                  with([](ExtraSettings& s) { s.pipeline = 1; s.level = 0; s.timeout = 1; })},
        ApplyCase{"UpperLimits", "pipeline=4096,level=9,timeout=86400,progress=1,atomic=yes", "",
                  with([](ExtraSettings& s) {
                    s.pipeline = 4096; s.level = 9; s.timeout = 86400;
                    s.progress = ProgressMode::kDisplay; s.atomic = true;
                  })},
        // progress and quiet: the later of the two wins; =0 leaves the other's mode alone.
        ApplyCase{"Quiet", "quiet=1", "",
                  with([](ExtraSettings& s) { s.progress = ProgressMode::kQuiet; })},
        ApplyCase{"QuietOff", "quiet=1,quiet=0", "", ExtraSettings{}},
        ApplyCase{"QuietAfterProgress", "progress=1,quiet=1", "",
                  with([](ExtraSettings& s) { s.progress = ProgressMode::kQuiet; })},
        ApplyCase{"ProgressAfterQuiet", "quiet=1,progress=1", "",
                  with([](ExtraSettings& s) { s.progress = ProgressMode::kDisplay; })},
        ApplyCase{"ProgressOffKeepsQuiet", "quiet=1,progress=0", "",
                  with([](ExtraSettings& s) { s.progress = ProgressMode::kQuiet; })},
        ApplyCase{"QuietOffKeepsProgress", "progress=1,quiet=0", "",
                  with([](ExtraSettings& s) { s.progress = ProgressMode::kDisplay; })},
        ApplyCase{"QuietTwo", "quiet=2", bad("\"2\"", "quiet", "0 or 1")},
        ApplyCase{"QuietCapitalYes", "quiet=YES", bad("\"YES\"", "quiet", "0 or 1")},
        ApplyCase{"QuietEmpty", "quiet=", bad("\"\"", "quiet", "0 or 1")},
        ApplyCase{"PipelineZero", "pipeline=0", bad("\"0\"", "pipeline", "a whole number from 1 to 4096")},
        ApplyCase{"PipelineEmpty", "pipeline=", bad("\"\"", "pipeline", "a whole number from 1 to 4096")},
        ApplyCase{"TimeoutTooLarge", "timeout=86401",
                  bad("\"86401\"", "timeout", "a whole number of seconds from 1 to 86400")},
        ApplyCase{"FlagWord", "progress=maybe", bad("\"maybe\"", "progress", "0 or 1")},
        ApplyCase{"ControlByteQuoted", "atomic=\t", bad("\"\\t\"", "atomic", "0 or 1")},
        ApplyCase{"PasswordFileWithEqualsSign", "password-file=a=b/pw", "",
                  with([](ExtraSettings& s) { s.passwordFile = "a=b/pw"; })},
        ApplyCase{"PasswordFileEmpty", "password-file=", bad("\"\"", "password-file", "a file name")},
        ApplyCase{"Help", "help", "", with([](ExtraSettings& s) { s.help = true; })}),
    [](const testing::TestParamInfo<ApplyCase>& info) { return std::string(info.param.name); });

}  // namespace

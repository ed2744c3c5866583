// The -o settings text; how the command line reports a complaint, prints the
// help and hands the settings on is in run_test.
#include "porter/extra_settings.h"

#include <gtest/gtest.h>

namespace {

using porter::ExtraSettings;

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

const std::string kPipelineRange = "expected a whole number from 1 to 4096";

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
                    s.progress = true; s.atomic = true;
                  })},
        ApplyCase{"PipelineZero", "pipeline=0",
                  "bad value \"0\" for -o pipeline: " + kPipelineRange},
        ApplyCase{"PipelineTooLarge", "pipeline=4097",
                  "bad value \"4097\" for -o pipeline: " + kPipelineRange},
        ApplyCase{"PipelineSign", "pipeline=+8",
                  "bad value \"+8\" for -o pipeline: " + kPipelineRange},
        ApplyCase{"PipelineEmpty", "pipeline=",
                  "bad value \"\" for -o pipeline: " + kPipelineRange},
        ApplyCase{"LevelTen", "level=10",
                  "bad value \"10\" for -o level: expected a whole number from 0 to 9"},
        ApplyCase{"TimeoutTooLarge", "timeout=86401",
                  "bad value \"86401\" for -o timeout: expected a whole number of seconds from 1 "
                  "to 86400"},
        ApplyCase{"FlagWord", "progress=maybe",
                  "bad value \"maybe\" for -o progress: expected 0 or 1"},
        ApplyCase{"ControlByteQuoted", "atomic=\t",
                  "bad value \"\\t\" for -o atomic: expected 0 or 1"},
        ApplyCase{"Help", "help", "", with([](ExtraSettings& s) { s.help = true; })}),
    [](const testing::TestParamInfo<ApplyCase>& info) { return std::string(info.param.name); });

}  // namespace

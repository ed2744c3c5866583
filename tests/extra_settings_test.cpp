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
        ApplyCase{"LowerLimits",
                  "pipeline=1,level=0,timeout=1,progress=0,atomic=off,reconnect=0,reconnect-wait=0",
                  "", with([](ExtraSettings& s) {
                    s.pipeline = 1; s.level = 0; s.timeout = 1; s.reconnectWait = 0;
                  })},
        ApplyCase{"UpperLimits",
                  "pipeline=4096,level=9,timeout=86400,progress=1,atomic=yes,reconnect=100,"
                  "reconnect-wait=60.000",
                  "", with([](ExtraSettings& s) {
                    s.pipeline = 4096; s.level = 9; s.timeout = 86400;
                    s.progress = ProgressMode::kDisplay; s.atomic = true;
                    s.reconnect = 100; s.reconnectWait = 60;
                  })},
        ApplyCase{"ReconnectWaitFraction", "reconnect-wait=.25,reconnect=3", "",
                  with([](ExtraSettings& s) { s.reconnectWait = 0.25; s.reconnect = 3; })},
        ApplyCase{"ReconnectTooMany", "reconnect=101",
                  bad("\"101\"", "reconnect", "a whole number from 0 to 100")},
        ApplyCase{"ReconnectWaitTooLong", "reconnect-wait=60.01",
                  bad("\"60.01\"", "reconnect-wait", "a number of seconds from 0 to 60")},
        ApplyCase{"ReconnectWaitNegative", "reconnect-wait=-1",
                  bad("\"-1\"", "reconnect-wait", "a number of seconds from 0 to 60")},
        ApplyCase{"ReconnectWaitExponent", "reconnect-wait=1e1",
                  bad("\"1e1\"", "reconnect-wait", "a number of seconds from 0 to 60")},
        ApplyCase{"ReconnectWaitDotOnly", "reconnect-wait=.",
                  bad("\".\"", "reconnect-wait", "a number of seconds from 0 to 60")},
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

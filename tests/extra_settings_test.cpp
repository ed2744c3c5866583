#include "porter/extra_settings.h"

#include <gtest/gtest.h>

#include <sstream>

#include "porter/run.h"

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
  ExtraSettings expected;
};

class ApplyExtraSettingsTest : public testing::TestWithParam<ApplyCase> {};

TEST_P(ApplyExtraSettingsTest, GivesSettingsOrComplaint) {
  ExtraSettings settings;
  EXPECT_EQ(porter::apply_extra_settings(GetParam().text, settings), GetParam().complaint);
  if (GetParam().complaint.empty()) {
    EXPECT_EQ(settings, GetParam().expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ApplyExtraSettingsTest,
    testing::Values(
        ApplyCase{"Empty", "", "", ExtraSettings{}},
        ApplyCase{"UnknownNameIgnored", "colour=blue", "", ExtraSettings{}},
        ApplyCase{"BareWordIgnored", "pipeline", "", ExtraSettings{}},
        ApplyCase{"Pipeline", "pipeline=64", "", with([](ExtraSettings& s) { s.pipeline = 64; })},
        ApplyCase{"PipelineLimits", "pipeline=1,pipeline=4096", "",
                  with([](ExtraSettings& s) { s.pipeline = 4096; })},
        ApplyCase{"PipelineZero", "pipeline=0",
                  "bad value \"0\" for -o pipeline: expected a whole number from 1 to 4096", {}},
        ApplyCase{"PipelineTooLarge", "pipeline=4097",
                  "bad value \"4097\" for -o pipeline: expected a whole number from 1 to 4096", {}},
        ApplyCase{"PipelineSign", "pipeline=+8",
                  "bad value \"+8\" for -o pipeline: expected a whole number from 1 to 4096", {}},
        ApplyCase{"PipelineEmpty", "pipeline=",
                  "bad value \"\" for -o pipeline: expected a whole number from 1 to 4096", {}},
        ApplyCase{"Several", "progress=1,atomic=yes,timeout=30,level=9,other=x", "",
                  with([](ExtraSettings& s) {
                    s.progress = true;
                    s.atomic = true;
                    s.timeout = 30;
                    s.level = 9;
                  })},
        ApplyCase{"LevelZero", "level=0", "", with([](ExtraSettings& s) { s.level = 0; })},
        ApplyCase{"LevelTen", "level=10",
                  "bad value \"10\" for -o level: expected a whole number from 0 to 9", {}},
        ApplyCase{"TimeoutZero", "timeout=0",
                  "bad value \"0\" for -o timeout: expected a whole number of seconds from 1 to "
                  "86400",
                  {}},
        ApplyCase{"FlagWord", "progress=maybe", "bad value \"maybe\" for -o progress: expected 0 or 1",
                  {}},
        ApplyCase{"ControlByteQuoted", "atomic=\t", "bad value \"\\t\" for -o atomic: expected 0 or 1",
                  {}},
        ApplyCase{"Help", "help", "", with([](ExtraSettings& s) { s.help = true; })},
        ApplyCase{"EmptyPieces", ",,pipeline=2,,", "",
                  with([](ExtraSettings& s) { s.pipeline = 2; })}),
    [](const testing::TestParamInfo<ApplyCase>& info) { return std::string(info.param.name); });

int run(std::vector<std::string> args, std::string& err, porter::RunSettings* seen = nullptr) {
  args.insert(args.begin(), "talvix-exporter");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  std::ostringstream out;
  int code = porter::run_command_line(
      static_cast<int>(argv.size()), argv.data(),
      [&](const porter::RunSettings& s) {
        if (seen != nullptr) *seen = s;
      },
      out, [](char*, size_t, const char*) -> const char* { return "no terminal"; });
  err = out.str();
  return code;
}

TEST(ExtraSettingsCommandLineTest, BadValueIsAnErrorWithHint) {
  std::string err;
  EXPECT_EQ(run({"-lu", "-Pp", "-o", "pipeline=0"}, err), 1);
  EXPECT_EQ(err,
            "Error: bad value \"0\" for -o pipeline: expected a whole number from 1 to 4096\n"
            "'talvix-exporter -h' for help.\n");
}

TEST(ExtraSettingsCommandLineTest, HelpListsEverySettingAndExitsZero) {
  std::string err;
  EXPECT_EQ(run({"-o", "help"}, err), 0);
  for (const char* name : {"pipeline=N", "progress=1", "atomic=1", "timeout=S", "level=N", "help"}) {
    EXPECT_NE(err.find(std::string("\n  ") + name), std::string::npos) << name;
  }
}

TEST(ExtraSettingsCommandLineTest, SettingsReachTheDriverAndLaterOnesWin) {
  std::string err;
  porter::RunSettings seen;
  EXPECT_EQ(run({"-lu", "-Pp", "-opipeline=8,x=y", "-o", "pipeline=3"}, err, &seen), 0);
  EXPECT_EQ(seen.extra.pipeline, 3u);
  EXPECT_EQ(err, "");
}

}  // namespace

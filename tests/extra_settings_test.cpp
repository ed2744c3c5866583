// The -o settings text; how the command line reports a complaint, prints the
// help, lets the later of progress and quiet win and hands the settings on is
// in run_test.
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

// The complaint about `value` for the setting `name`.
std::string bad(const std::string& value, const std::string& name, const std::string& expected) {
  return "bad value " + value + " for -o " + name + ": expected " + expected;
}

TEST(ApplyExtraSettingsTest, GivesSettingsOrComplaint) {
  const struct {
    const char* text;
    std::string complaint;
    ExtraSettings expected = {};
  } cases[] = {
      // A bare known name other than help is ignored like an unknown one.
      {",,colour=blue,pipeline,,pipeline=2,", "", with([](ExtraSettings& s) { s.pipeline = 2; })},
      {"pipeline=1,level=0,timeout=1,progress=0,atomic=off,reconnect=0,reconnect-wait=.25", "",
       with([](ExtraSettings& s) {
         s.pipeline = 1; s.level = 0; s.timeout = 1; s.reconnectWait = 0.25;
       })},
      {"pipeline=4096,level=9,timeout=86400,progress=1,atomic=yes,reconnect=100,"
       "reconnect-wait=60.000",
       "", with([](ExtraSettings& s) {
         s.pipeline = 4096; s.level = 9; s.timeout = 86400; s.progress = ProgressMode::kDisplay;
         s.atomic = true; s.reconnect = 100; s.reconnectWait = 60;
       })},
      {"reconnect=101", bad("\"101\"", "reconnect", "a whole number from 0 to 100")},
      {"reconnect-wait=60.01", bad("\"60.01\"", "reconnect-wait", "a number of seconds from 0 to 60")},
      {"reconnect-wait=-1", bad("\"-1\"", "reconnect-wait", "a number of seconds from 0 to 60")},
      {"pipeline=0", bad("\"0\"", "pipeline", "a whole number from 1 to 4096")},
      {"timeout=86401", bad("\"86401\"", "timeout", "a whole number of seconds from 1 to 86400")},
      // =0 goes back to the dots only from its own mode.
      {"quiet=1,quiet=0", "", ExtraSettings{}},
      {"quiet=1,progress=0", "", with([](ExtraSettings& s) { s.progress = ProgressMode::kQuiet; })},
      {"atomic=\t", bad("\"\\t\"", "atomic", "0 or 1")},
      {"checksum=on", "", with([](ExtraSettings& s) { s.checksum = true; })},
      {"checksum=2", bad("\"2\"", "checksum", "0 or 1")},
      {"password-file=a=b/pw", "", with([](ExtraSettings& s) { s.passwordFile = "a=b/pw"; })},
      {"password-file=", bad("\"\"", "password-file", "a file name")},
      {"compress=zstd,report=r.json,metrics=m", "", with([](ExtraSettings& s) {
         s.compression = porter::Compression::kZstd; s.reportFile = "r.json"; s.metricsFile = "m";
       })},
      {"compress=lz4", bad("\"lz4\"", "compress", "gzip or zstd")},
      {"compress=zstd,level=20", bad("\"20\"", "level", "a whole number from 1 to 19 with compress=zstd")},
      {"tls=on,tls-ca=ca.pem,tls-name=db.example,tls-cert=c.pem,tls-key=k.pem", "",
       with([](ExtraSettings& s) { s.tls = true; s.tlsSettings = {"ca.pem", "db.example", "c.pem", "k.pem"}; })},
      {"tls=2", bad("\"2\"", "tls", "0 or 1")},
      {"tls-name=", bad("\"\"", "tls-name", "a host name")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    ExtraSettings settings;
    EXPECT_EQ(porter::apply_extra_settings(c.text, settings), c.complaint);
    if (c.complaint.empty()) {
      EXPECT_EQ(settings, c.expected);
    }
  }
}

}  // namespace

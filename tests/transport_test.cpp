// Whole exports over each transport against the stand-in server: over IPv6,
// and over TLS through stunnel with certificates made for the run. An export
// that gets through writes the very document of a plain one; one that fails
// ends with exit code 1 and its message before the server saw a login.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "server/server_options.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "support/tls_terminator.h"

namespace {

// Counts the logins the server is asked to check.
struct CountingLogins : support::ForwardingDatabase {
  using ForwardingDatabase::ForwardingDatabase;
  bool checkLogin(const std::string& d, const std::string& u, const std::string& p) const override {
    ++logins;
    return inner_->checkLogin(d, u, p);
  }
  mutable std::atomic<int> logins{0};
};

TEST(TransportExportTest, SameDocumentOrFailureBeforeTheLogin) {
  auto db = std::make_shared<CountingLogins>(support::exportable_database());
  support::TestServer server(db);
  server::ServerOptions ipv6;
  ipv6.listen = "::1";
  support::TestServer server6(db, ipv6);
  support::TlsTerminator tls(server.port());
  const std::string ca = "tls=1,tls-ca=" + tls.file("ca.pem");
  const std::string client = ",tls-cert=" + tls.file("client.pem") + ",tls-key=" + tls.file("client.key");
  auto handshake = [](uint16_t port) { return "TLS handshake with 127.0.0.1:" + std::to_string(port) + " failed: "; };
  const std::string untrusted = "certificate verify failed (unable to get local issuer certificate)";
  const struct {
    const char* host;
    uint16_t port;
    std::string settings;
    uint32_t depth;
    std::string failure;  // empty: the plain export's document
  } cases[] = {
      {"::1", server6.port(), "", support::kSequential, ""},
      {"127.0.0.1", tls.port(), ca, support::kSequential, ""},
      {"127.0.0.1", tls.port(), ca, 16, ""},
      {"127.0.0.1", tls.mutualPort(), ca + client, 16, ""},
      // A certificate that fails its checks is not tried again.
      {"127.0.0.1", tls.port(), "reconnect=2,reconnect-wait=0,tls=1,tls-ca=" + tls.file("other-ca.pem"),
       support::kSequential, handshake(tls.port()) + untrusted},
      {"127.0.0.1", tls.port(), "tls=1", support::kSequential, handshake(tls.port()) + untrusted},
      {"127.0.0.1", tls.port(), "reconnect=2,reconnect-wait=0,tls-name=monitor.example," + ca, support::kSequential,
       handshake(tls.port()) + "certificate verify failed (hostname mismatch)"},
      {"127.0.0.1", tls.mutualPort(), "reconnect=2,reconnect-wait=0," + ca, support::kSequential,
       handshake(tls.mutualPort()) + "sslv3 alert handshake failure"},
      {"127.0.0.1", server.port(), ca, support::kSequential, handshake(server.port()) + "unexpected end of stream"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings + " to " + std::to_string(c.port));
    const int loginsBefore = db->logins;
    const support::Outcome run = support::run_exporter(c.port, {"-s", c.host, "-o", c.settings}, c.depth);
    if (c.failure.empty()) {
      EXPECT_GT(db->logins, loginsBefore);
      const support::Outcome plain = support::run_exporter(server.port(), {}, c.depth);
      EXPECT_EQ(run.exitCode, 0) << run.errors;
      EXPECT_EQ(run.document, plain.document);
      EXPECT_EQ(run.errors, plain.errors);
      continue;
    }
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.failure, c.failure);
    EXPECT_TRUE(run.document.empty()) << "the output is opened only after the login";
    EXPECT_EQ(run.errors.find("reconnecting"), std::string::npos) << run.errors;
    EXPECT_EQ(db->logins, loginsBefore) << "a login reached the server";
  }
}

}  // namespace

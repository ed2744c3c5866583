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
class CountingLogins : public support::ForwardingDatabase {
 public:
  using ForwardingDatabase::ForwardingDatabase;
  bool checkLogin(const std::string& d, const std::string& u, const std::string& p) const override {
    ++logins;
    return inner_->checkLogin(d, u, p);
  }
  mutable std::atomic<int> logins{0};
};

enum class Via { kIpv6, kTerminator, kDemandingTerminator, kPlainServer };

TEST(TransportExportTest, SameDocumentOrFailureBeforeTheLogin) {
  auto db = std::make_shared<CountingLogins>(support::exportable_database());
  support::TestServer server(db);
  server::ServerOptions ipv6;
  ipv6.listen = "::1";
  support::TestServer server6(db, ipv6);
  support::TlsTerminator tls(server.port());
  const std::string ca = "tls=1,tls-ca=" + tls.file("ca.pem");
  const std::string client = ",tls-cert=" + tls.file("client.pem") + ",tls-key=" + tls.file("client.key");
  const std::string handshake = "TLS handshake with 127.0.0.1:PORT failed: ";
  const struct {
    const char* name;
    Via via;
    std::string settings;
    uint32_t depth;
    std::string failure;  // PORT: the port connected to
  } cases[] = {
      {"Ipv6Literal", Via::kIpv6, "pipeline=1", support::kSequential, ""},
      {"Sequential", Via::kTerminator, ca, support::kSequential, ""},
      {"Pipelined", Via::kTerminator, ca, 16, ""},
      {"ClientCertificate", Via::kDemandingTerminator, ca + client, 16, ""},
      // A certificate that fails its checks is not tried again.
      {"Untrusted", Via::kTerminator, "reconnect=2,reconnect-wait=0,tls=1,tls-ca=" + tls.file("other-ca.pem"),
       support::kSequential, handshake + "certificate verify failed (unable to get local issuer certificate)"},
      {"NotInTheSystemTrustStore", Via::kTerminator, "tls=1", support::kSequential,
       handshake + "certificate verify failed (unable to get local issuer certificate)"},
      {"WrongName", Via::kTerminator, "reconnect=2,reconnect-wait=0,tls-name=monitor.example," + ca,
       support::kSequential, handshake + "certificate verify failed (hostname mismatch)"},
      {"NoClientCertificate", Via::kDemandingTerminator, "reconnect=2,reconnect-wait=0," + ca,
       support::kSequential, handshake + "tlsv13 alert certificate required"},
      {"PlainServer", Via::kPlainServer, ca, support::kSequential, handshake + "unexpected end of stream"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const uint16_t port = c.via == Via::kIpv6                  ? server6.port()
                          : c.via == Via::kTerminator          ? tls.port()
                          : c.via == Via::kDemandingTerminator ? tls.mutualPort()
                                                               : server.port();
    const std::string host = c.via == Via::kIpv6 ? "::1" : "127.0.0.1";
    const int loginsBefore = db->logins;
    const support::Outcome run = support::run_exporter(port, {"-s", host, "-o", c.settings}, c.depth);
    if (c.failure.empty()) {
      const support::Outcome plain = support::run_exporter(server.port(), {}, c.depth);
      EXPECT_EQ(run.exitCode, 0) << run.errors;
      EXPECT_EQ(run.document, plain.document);
      EXPECT_EQ(run.errors, plain.errors);
      EXPECT_GT(db->logins, loginsBefore);
      continue;
    }
    std::string failure = c.failure;
    failure.replace(failure.find("PORT"), 4, std::to_string(port));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.failure, failure);
    EXPECT_TRUE(run.document.empty()) << "the output is opened only after the login";
    EXPECT_EQ(run.errors.find("reconnecting"), std::string::npos) << run.errors;
    EXPECT_EQ(db->logins, loginsBefore) << "a login reached the server";
  }
}

}  // namespace

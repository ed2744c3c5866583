// Whole exports over each transport against the stand-in server: over IPv6,
// and over TLS through stunnel with certificates made for the run. An export
// that gets through writes the very document of a plain one; one that fails
// ends with exit code 1 and its message before the server saw a login.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "server/server_options.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "support/tls_terminator.h"

namespace {

// Counts the logins the server is asked to check.
struct CountingLogins : support::ForwardingDatabase {
  using ForwardingDatabase::ForwardingDatabase;
  bool checkLogin(const std::string& d, const std::string& u, const std::string& p) const override {
    return ++logins, inner_->checkLogin(d, u, p);
  }
  mutable std::atomic<int> logins{0};
};

TEST(TransportExportTest, SameDocumentOrFailureBeforeTheLogin) {
  auto db = std::make_shared<CountingLogins>(support::exportable_database());
  support::TestServer server(db);
  server::ServerOptions ipv6, closing;
  ipv6.listen = "::1";
  closing.faults.closeAtRequest = 5;  // on the first connection alone
  closing.faults.faultConnections = 1;
  support::TestServer server6(db, ipv6), flaky(db, closing);
  support::TlsTerminator tls(server.port()), flakyTls(flaky.port());
  const std::string gz = tls.file("out.xml.gz"), retry = "reconnect=2,reconnect-wait=0,";
  const std::string ca = "tls=1,tls-ca=" + tls.file("ca.pem");
  const std::string untrusted = "certificate verify failed (unable to get local issuer certificate)";
  const struct {
    uint16_t port;
    std::vector<std::string> args;
    uint32_t depth;
    std::string failure;  // after "TLS handshake with 127.0.0.1:<port> failed: "; empty: the plain document
    std::string notice = "";  // on the error stream besides the plain export's lines
  } cases[] = {
      {server6.port(), {"-s", "::1"}, support::kSequential, ""},
      {tls.port(), {"-o", ca}, support::kSequential, ""},
      {tls.mutualPort(), {"-o", ca + ",tls-cert=" + tls.file("client.pem") + ",tls-key=" + tls.file("client.key")}, 16, ""},
      {tls.port(), {"-o", ca + ",atomic=1", "-z", "-f" + gz}, 16, ""},  // the plain export writes the same file
      {flakyTls.port(), {"-o", retry + "tls=1,tls-ca=" + flakyTls.file("ca.pem")}, support::kSequential, "",
       "\nConnection lost (Error reading: OsalSocket::read end of stream); reconnecting, attempt 1 of 2\n"},
      // A certificate that fails its checks is not tried again.
      {tls.port(), {"-o", retry + "tls=1,tls-ca=" + tls.file("other-ca.pem")}, support::kSequential, untrusted},
      {tls.port(), {"-o", "tls=1"}, support::kSequential, untrusted},
      {tls.port(), {"-o", retry + "tls-name=monitor.example," + ca}, support::kSequential,
       "certificate verify failed (hostname mismatch)"},
      {tls.mutualPort(), {"-o", retry + ca}, support::kSequential,
       "the server asked for a client certificate and none was given (-o tls-cert, tls-key)"},
      {server.port(), {"-o", ca}, support::kSequential, "unexpected end of stream"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back() + " to " + std::to_string(c.port));
    const int loginsBefore = db->logins;
    const support::Outcome run = support::run_exporter(c.port, c.args, c.depth);
    if (c.failure.empty()) {
      EXPECT_EQ(run.exitCode, 0) << run.errors;
      const std::string document = run.document.empty() ? support::read_gzip_file(gz) : run.document;
      const support::Outcome plain = support::run_exporter(server.port(), {c.args.begin() + 2, c.args.end()}, c.depth);
      EXPECT_EQ(document, plain.document.empty() ? support::read_gzip_file(gz) : plain.document);
      std::string errors = run.errors;
      const size_t notice = errors.find(c.notice);
      ASSERT_NE(notice, std::string::npos) << errors;
      EXPECT_EQ(errors.erase(notice, c.notice.size()), plain.errors);
      continue;
    }
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.failure, "TLS handshake with 127.0.0.1:" + std::to_string(c.port) + " failed: " + c.failure);
    EXPECT_EQ(run.errors.find("reconnecting"), std::string::npos) << run.errors;
    EXPECT_EQ(db->logins, loginsBefore) << "a login reached the server";
  }
}

}  // namespace

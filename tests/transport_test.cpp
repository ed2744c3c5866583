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
  server::ServerOptions closing;  // the first connection closes at the fifth request
  closing.faults.closeAtRequest = 5;
  closing.faults.faultConnections = 1;
  support::TestServer flaky(db, closing);
  support::TlsTerminator flakyTls(flaky.port());
  const std::string gz = tls.file("out.xml.gz");
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
    std::vector<std::string> more = {};  // further arguments; with them the document goes to gz
    std::string notice = "";  // on the error stream before the plain one's
  } cases[] = {
      {"::1", server6.port(), "", support::kSequential, ""},
      {"127.0.0.1", tls.port(), ca, support::kSequential, ""},
      {"127.0.0.1", tls.port(), ca, 16, ""},
      {"127.0.0.1", tls.mutualPort(), ca + client, 16, ""},
      {"127.0.0.1", tls.port(), ca + ",atomic=1", 16, "", {"-z", "-f" + gz}},
      {"127.0.0.1", flakyTls.port(), "reconnect=2,reconnect-wait=0,tls=1,tls-ca=" + flakyTls.file("ca.pem"),
       support::kSequential, "", {}, "\nConnection lost (Error reading: OsalSocket::read end of stream); "
       "reconnecting, attempt 1 of 2\n"},
      // A certificate that fails its checks is not tried again.
      {"127.0.0.1", tls.port(), "reconnect=2,reconnect-wait=0,tls=1,tls-ca=" + tls.file("other-ca.pem"),
       support::kSequential, handshake(tls.port()) + untrusted},
      {"127.0.0.1", tls.port(), "tls=1", support::kSequential, handshake(tls.port()) + untrusted},
      {"127.0.0.1", tls.port(), "reconnect=2,reconnect-wait=0,tls-name=monitor.example," + ca, support::kSequential,
       handshake(tls.port()) + "certificate verify failed (hostname mismatch)"},
      {"127.0.0.1", tls.mutualPort(), "reconnect=2,reconnect-wait=0," + ca, support::kSequential,
       handshake(tls.mutualPort()) + "the server asked for a client certificate and none was given (-o tls-cert, tls-key)"},
      {"127.0.0.1", server.port(), ca, support::kSequential, handshake(server.port()) + "unexpected end of stream"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings + " to " + std::to_string(c.port));
    const int loginsBefore = db->logins;
    std::vector<std::string> args = {"-s", c.host, "-o", c.settings};
    args.insert(args.end(), c.more.begin(), c.more.end());
    const support::Outcome run = support::run_exporter(c.port, args, c.depth);
    if (c.failure.empty()) {
      EXPECT_GT(db->logins, loginsBefore);
      EXPECT_EQ(run.exitCode, 0) << run.errors;
      const std::string document = c.more.empty() ? run.document : support::read_gzip_file(gz);
      const support::Outcome plain = support::run_exporter(server.port(), c.more, c.depth);
      EXPECT_EQ(document, c.more.empty() ? plain.document : support::read_gzip_file(gz));
      std::string errors = run.errors;
      const size_t notice = errors.find(c.notice);
      ASSERT_NE(notice, std::string::npos) << errors;
      EXPECT_EQ(errors.erase(notice, c.notice.size()), plain.errors);
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

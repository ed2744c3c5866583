// A byte stream over TLS (1.2 or later) on a connected TCP socket.
//
// The handshake runs in the constructor and checks the server's certificate
// chain and its name before the stream exists, so nothing the client writes
// travels before the server has been verified, and never in clear.
#ifndef TALVIX_NET_TLS_STREAM_H_
#define TALVIX_NET_TLS_STREAM_H_

#include <cstdint>
#include <memory>
#include <string>

#include "net/basic_io.h"

struct ssl_st;
struct ssl_ctx_st;
struct bio_method_st;

namespace net {

class SocketStream;

struct TlsSettings {
  std::string caFile;    // PEM certificates to trust; empty: the system's trust store
  std::string name;      // the name the certificate must carry; empty: the host connected to
  std::string certFile;  // PEM client certificate (chain) to present; empty: none
  std::string keyFile;   // PEM private key of certFile

  bool operator==(const TlsSettings&) const = default;
};

class TlsStream : public BasicIo {
 public:
  // Runs the handshake with `host`:`port` over `socket`, whose waits (and
  // their limit) it uses; each wait of the handshake counts as connecting.
  // Raises
  //   util::EFatal "Error loading TLS file <path>: <reason>" for a CA,
  //     certificate or key file the library cannot use;
  //   "TLS handshake with <host>:<port> failed: <reason>", where the reason is
  //     the library's, followed by the certificate check's verdict in
  //     parentheses when that failed, e.g. "certificate verify failed
  //     (unable to get local issuer certificate)": util::EConnectError when
  //     the peer or its certificate was refused (trying again cannot help),
  //     util::ESystemError when the connection failed on the way;
  //   "TLS handshake with <host>:<port> failed: the server asked for a client
  //     certificate and none was given (-o tls-cert, tls-key)"
  //     (util::EConnectError) when the server asked for one, none was
  //     configured, and the connection fails before the server's first data;
  //   "Could not connect to server <host>:<port> within <N> seconds".
  TlsStream(std::unique_ptr<SocketStream> socket, const TlsSettings& settings,
            const std::string& host, uint16_t port);
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;
  ~TlsStream() override;

  // The texts and waits of SocketStream's write() and read(). A failure of
  // the TLS layer is "TLS connection with <host>:<port> failed: <reason>"
  // (util::ESystemError); before the server's first octet of data it is
  // still the handshake's (the server may refuse a client certificate only
  // after the client's side of the handshake is done).
  void write(const void* data, size_t length) override;
  void flush() override;
  uint64_t read(void* buffer, uint64_t capacity) override;
  bool readable() override;

 private:
  struct ContextFree {
    void operator()(ssl_ctx_st* context) const;
  };
  struct SslFree {
    void operator()(ssl_st* ssl) const;
  };
  struct MethodFree {
    void operator()(bio_method_st* method) const;
  };

  // Runs `call` (an SSL_* call's result) until it succeeds, waiting as the
  // library asks; returns its positive result, 0 for a closed stream, or
  // raises the failure.
  template <class Call>
  int drive(Call call, bool connecting, bool reading);
  [[noreturn]] void fail(int error, bool inHandshake) const;

  std::unique_ptr<SocketStream> socket_;
  std::unique_ptr<ssl_ctx_st, ContextFree> context_;
  std::unique_ptr<bio_method_st, MethodFree> method_;  // outlives ssl_, whose BIO uses it
  std::unique_ptr<ssl_st, SslFree> ssl_;
  std::string server_;  // "<host>:<port>"
  bool answered_ = false;  // the server has sent data
  bool certificateMissing_ = false;  // the server asked for a client certificate; none was given
};

}  // namespace net

#endif  // TALVIX_NET_TLS_STREAM_H_

#include "net/tls_stream.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <utility>

#include "net/socket.h"
#include "net/socket_stream.h"
#include "util/error.h"

namespace net {

namespace {

bool is_address(const std::string& host) {
  unsigned char binary[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, host.c_str(), binary) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), binary) == 1;
}

// The library's reason for the oldest error it has queued, or `fallback`.
std::string library_reason(const std::string& fallback) {
  const unsigned long code = ERR_peek_error();
  if (code == 0) return fallback;
  if (const char* reason = ERR_reason_error_string(code)) return reason;
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

void load(int ok, const std::string& path) {
  if (ok == 1) return;
  const std::string reason = library_reason("unusable");
  ERR_clear_error();
  throw util::EFatal("Error loading TLS file " + path + ": " + reason);
}

// Called when the server asks for a client certificate and none is
// configured: notes the request (the SSL's app data is the flag) and sends
// none, which a server may accept.
int note_certificate_request(SSL* ssl, X509**, EVP_PKEY**) {
  *static_cast<bool*>(SSL_get_app_data(ssl)) = true;
  return 0;
}

int size_arg(size_t length) { return length > INT_MAX ? INT_MAX : static_cast<int>(length); }

// The library's own socket layer writes with write(), which raises SIGPIPE
// when the server has gone; this one sends with MSG_NOSIGNAL, so a closed
// peer is an ordinary failure. The BIO's data is the descriptor.
int descriptor_of(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int transfer_result(BIO* bio, ssize_t count, bool reading) {
  BIO_clear_retry_flags(bio);
  if (count >= 0) return static_cast<int>(count);
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    reading ? BIO_set_retry_read(bio) : BIO_set_retry_write(bio);
  }
  return -1;
}

int bio_write(BIO* bio, const char* data, int length) {
  const ssize_t sent = ::send(descriptor_of(bio), data, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
  return transfer_result(bio, sent, false);
}

int bio_read(BIO* bio, char* buffer, int capacity) {
  const ssize_t received = ::recv(descriptor_of(bio), buffer, static_cast<size_t>(capacity), MSG_DONTWAIT);
  return transfer_result(bio, received, true);
}

long bio_ctrl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

}  // namespace

void TlsStream::ContextFree::operator()(ssl_ctx_st* context) const { SSL_CTX_free(context); }
void TlsStream::SslFree::operator()(ssl_st* ssl) const { SSL_free(ssl); }
void TlsStream::MethodFree::operator()(bio_method_st* method) const { BIO_meth_free(method); }

TlsStream::TlsStream(std::unique_ptr<SocketStream> socket, const TlsSettings& settings,
                     const std::string& host, uint16_t port)
      : socket_(std::move(socket)), context_(SSL_CTX_new(TLS_client_method())),
      server_(server_text(host, port)) {
  if (!context_) throw util::EFatal("Error setting up TLS: " + library_reason("out of memory"));
  SSL_CTX* context = context_.get();
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  if (settings.caFile.empty()) {
    SSL_CTX_set_default_verify_paths(context);
  } else {
    load(SSL_CTX_load_verify_locations(context, settings.caFile.c_str(), nullptr), settings.caFile);
  }
  if (!settings.certFile.empty()) {
    load(SSL_CTX_use_certificate_chain_file(context, settings.certFile.c_str()), settings.certFile);
    const std::string& key = settings.keyFile.empty() ? settings.certFile : settings.keyFile;
    load(SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM), key);
    load(SSL_CTX_check_private_key(context), key);
  }
  SSL_CTX_set_client_cert_cb(context, note_certificate_request);
  ssl_.reset(SSL_new(context));
  if (!ssl_) throw util::EFatal("Error setting up TLS: " + library_reason("out of memory"));
  SSL* ssl = ssl_.get();
  SSL_set_app_data(ssl, &certificateMissing_);
  const std::string& name = settings.name.empty() ? host : settings.name;
  if (is_address(name)) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str());
  } else {
    SSL_set_tlsext_host_name(ssl, name.c_str());
    SSL_set1_host(ssl, name.c_str());
  }
  method_.reset(BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "talvix socket"));
  BIO* bio = nullptr;
  if (method_ && BIO_meth_set_write(method_.get(), bio_write) == 1 &&
      BIO_meth_set_read(method_.get(), bio_read) == 1 && BIO_meth_set_ctrl(method_.get(), bio_ctrl) == 1) {
    bio = BIO_new(method_.get());
  }
  if (bio == nullptr) throw util::EFatal("Error setting up TLS: " + library_reason("out of memory"));
  BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(socket_->descriptor())));
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl, bio, bio);  // the SSL owns the BIO
  drive([ssl] { return SSL_connect(ssl); }, true, false);
}

TlsStream::~TlsStream() = default;

template <class Call>
int TlsStream::drive(Call call, bool connecting, bool reading) {
  for (;;) {
    ERR_clear_error();
    errno = 0;
    const int result = call();
    if (result > 0) return result;
    const int error = SSL_get_error(ssl_.get(), result);
    if (error == SSL_ERROR_WANT_READ) {
      socket_->wait(POLLIN, connecting);
    } else if (error == SSL_ERROR_WANT_WRITE) {
      socket_->wait(POLLOUT, connecting);
    } else if (reading && (error == SSL_ERROR_ZERO_RETURN ||
                           ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING)) {
      return 0;
    } else {
      fail(error, connecting || !answered_);
    }
  }
}

void TlsStream::fail(int error, bool inHandshake) const {
  const std::string handshakeFailed = "TLS handshake with " + server_ + " failed: ";
  if (inHandshake && certificateMissing_) {
    // With TLS 1.3 the refusal comes after the client's side of the handshake,
    // as an alert or a reset depending on timing; either means the same.
    ERR_clear_error();
    throw util::EConnectError(handshakeFailed +
                              "the server asked for a client certificate and none was given (-o tls-cert, tls-key)");
  }
  std::string reason;
  if (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) {
    reason = errno != 0 ? code_text("", errno) : "unexpected end of stream";
  } else {
    reason = library_reason("error " + std::to_string(error));
  }
  const long verdict = SSL_get_verify_result(ssl_.get());
  if (verdict != X509_V_OK) reason += std::string(" (") + X509_verify_cert_error_string(verdict) + ")";
  ERR_clear_error();
  if (!inHandshake) util::throw_system_error("TLS connection with " + server_ + " failed: " + reason);
  const std::string text = handshakeFailed + reason;
  if (error == SSL_ERROR_SSL) throw util::EConnectError(text);
  util::throw_system_error(text);
}

void TlsStream::write(const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  while (length > 0) {
    const int piece = size_arg(length);
    drive([&] { return SSL_write(ssl_.get(), next, piece); }, false, false);
    next += piece;  // SSL_write hands over the whole piece (no partial writes by default)
    length -= static_cast<size_t>(piece);
  }
}

void TlsStream::flush() {}

uint64_t TlsStream::read(void* buffer, uint64_t capacity) {
  if (capacity == 0) return 0;
  const int wanted = size_arg(capacity > SIZE_MAX ? SIZE_MAX : static_cast<size_t>(capacity));
  const int count = drive([&] { return SSL_read(ssl_.get(), buffer, wanted); }, false, true);
  if (count == 0 && !answered_ && certificateMissing_) fail(SSL_ERROR_ZERO_RETURN, true);
  if (count == 0) util::throw_system_error("Error reading: OsalSocket::read end of stream");
  answered_ = true;
  return static_cast<uint64_t>(count);
}

bool TlsStream::readable() {
  if (SSL_pending(ssl_.get()) > 0) return true;
  return socket_->readable();
}

}  // namespace net

// The TLS side of a host: its context, and the certificate that is read when it is first needed.

#include <mutex>
#include <stdexcept>

#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <unistd.h>

#include "agent/agent_host.h"
#include "util/close_on_exec.h"
#include "util/log.h"

namespace tavlo {

namespace {

// OpenSSL would ask on the terminal for the pass phrase of an encrypted key; a daemon has nobody to
// answer.
int RefusePassPhrase(char* /*buffer*/, int /*size*/, int /*forWriting*/, void* /*user*/) {
  return -1;
}

// The key on P-256 for the key exchange. It is kept for the life of the process and never freed.
EC_KEY* EcdhKey() {
  static EC_KEY* key = nullptr;
  if (key == nullptr) {
    key = EC_KEY_new_by_curve_name(NID_X9_62_prime256v1);
  }
  return key;
}

// Loading a private key already compares it with a certificate of its type.
bool IsKeyMismatch(unsigned long error) {
  const int reason = ERR_GET_REASON(error);
  return ERR_GET_LIB(error) == ERR_LIB_X509 &&
         (reason == X509_R_KEY_VALUES_MISMATCH || reason == X509_R_KEY_TYPE_MISMATCH);
}

// Empties OpenSSL's error queue and returns its last entry.
unsigned long TakeLastError() {
  const unsigned long error = ERR_peek_last_error();
  ERR_clear_error();
  return error;
}

}  // namespace

void AgentHost::InitSsl() {
  // Without the texts of its errors, 64 KiB that nobody is shown.
  OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_SSL_STRINGS | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS, nullptr);
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  if (context == nullptr) {
    throw std::runtime_error("Cannot create SSL context");
  }
  sslCtx_.reset(context, SSL_CTX_free);
  // Renegotiation, which costs this side more than the client, is off by default as of OpenSSL 3.0.
  SSL_CTX_set_options(context, SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_RENEGOTIATION);
  // An idle connection gives its buffers back, 34 KiB.
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
  // Or one client that sends nothing but records without data would keep the loop in one read.
  SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_default_passwd_cb(context, RefusePassPhrase);

  EC_KEY* const key = EcdhKey();
  if (key == nullptr) {
    throw std::runtime_error("Cannot creates a new EC_KEY object");
  }
  if (SSL_CTX_set_tmp_ecdh(context, key) != 1) {
    throw std::runtime_error("Cannot set ECDH parameters");
  }
}

bool AgentHost::HasCertificateFiles() const {
  return ::access(certFile_.c_str(), F_OK) == 0 && ::access(keyFile_.c_str(), F_OK) == 0;
}

bool AgentHost::LoadCertificate() {
  if (certificateLoaded_) {
    return true;
  }
  // OpenSSL opens the files without making them close-on-exec.
  const std::lock_guard<std::mutex> lock(stdext::exec_mutex());
  const char* const certFile = certFile_.c_str();
  const char* const keyFile = keyFile_.c_str();
  if (!HasCertificateFiles()) {
    ORX_LOG(Orx::Log::kDebug, "Certificate files %s and %s do not exist", certFile, keyFile);
    return false;
  }
  SSL_CTX* const context = sslCtx_.get();
  if (SSL_CTX_use_certificate_chain_file(context, certFile) != 1) {
    ERR_clear_error();
    ORX_LOG(Orx::Log::kError, "Failed in loading certificate chain file: %s", certFile);
    return false;
  }
  const bool keyLoaded = SSL_CTX_use_PrivateKey_file(context, keyFile, SSL_FILETYPE_PEM) == 1;
  if (!keyLoaded && !IsKeyMismatch(TakeLastError())) {
    ORX_LOG(Orx::Log::kError, "Failed in loading private key file: %s", keyFile);
    return false;
  }
  if (!keyLoaded || SSL_CTX_check_private_key(context) != 1) {
    ERR_clear_error();
    ORX_LOG(Orx::Log::kError, "Failed in checking consistency of the private key.");
    return false;
  }
  certificateLoaded_ = true;
  ORX_LOG(Orx::Log::kDebug, "Certificate files %s and %s are loaded successfully", certFile,
          keyFile);
  return true;
}

bufferevent* AgentHost::SslConnect() {
  if (!LoadCertificate()) {
    return nullptr;
  }
  // libevent takes over the SSL object, also when it fails, but does not bear a missing one.
  SSL* const ssl = SSL_new(sslCtx_.get());
  bufferevent* const connection =
      ssl == nullptr ? nullptr
                     : bufferevent_openssl_socket_new(
                           base_.get(), -1, ssl, BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
  if (connection == nullptr) {
    ERR_clear_error();
    Orx::Log::Message2(Orx::Log::kError, "bufferevent* tavlo::AgentHost::SslConnect",
                       "Failed to create openssl socket");
  }
  return connection;
}

}  // namespace tavlo

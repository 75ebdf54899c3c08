// Certificate and key, in the steps in which the TLS listener takes them.

#include <cerrno>
#include <fstream>
#include <memory>
#include <new>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/checks.h"
#include "util/error_text.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kConsequence = "the TLS port speaks plain HTTP";

struct TlsFiles {
  std::string certificate;
  std::string key;
};

// Asked for the pass phrase of an encrypted key; `wasAsked` is a bool.
int RefusePassPhrase(char* /*buffer*/, int /*size*/, int /*forWriting*/, void* wasAsked) {
  *static_cast<bool*>(wasAsked) = true;
  return -1;
}

// Empties OpenSSL's error queue and returns the text of its last entry.
std::string TakeLastError() {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  std::string text = reason != nullptr ? reason : "no reason is known";
  ERR_clear_error();
  return text;
}

// What `print` writes into the BIO that it gets.
template <typename Print>
std::string TextFromBio(Print print) {
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> memory(BIO_new(BIO_s_mem()), BIO_free_all);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  print(memory.get());
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<size_t>(size)};
}

std::string TimeText(const ASN1_TIME* time) {
  return TextFromBio([time](BIO* out) { ASN1_TIME_print(out, time); });
}

std::string SubjectOf(const X509* certificate) {
  return TextFromBio([certificate](BIO* out) {
    X509_NAME_print_ex(out, X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE);
  });
}

void CheckDates(const CheckContext& context, const std::string& path, const X509* certificate) {
  const ASN1_TIME* const begin = X509_get0_notBefore(certificate);
  const ASN1_TIME* const end = X509_get0_notAfter(certificate);
  const std::string which = "the certificate of " + SubjectOf(certificate);
  if (X509_cmp_current_time(end) < 0) {
    context.findings->Add(path, which + " has expired, on " + TimeText(end) + ": clients refuse it",
                          "put a new one there, then restart the daemon");
  } else if (X509_cmp_current_time(begin) > 0) {
    context.findings->Add(
        path, which + " is not valid before " + TimeText(begin) + ": clients refuse it",
        "set the router's clock, or put another certificate there and restart the daemon");
  }
}

// Says so where it is no file, and where this may not read it, though the daemon's user may.
bool IsReadable(const CheckContext& context, const std::string& path) {
  struct stat info = {};
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    context.findings->Add(path, std::string("is no file: ") + kConsequence, "put a file there");
    return false;
  }
  const std::ifstream file(path);
  const int error = errno;
  if (!file.is_open() && context.user.May(path, R_OK)) {
    context.findings->AddUnseen(path, stdext::error_number_and_text(error));
  }
  return file.is_open();
}

// Returns whether there is one to compare the key with.
bool CheckCertificate(const CheckContext& context, const TlsFiles& files, SSL_CTX* tls) {
  if (!IsReadable(context, files.certificate)) {
    return false;
  }
  if (SSL_CTX_use_certificate_chain_file(tls, files.certificate.c_str()) != 1) {
    context.findings->Add(
        files.certificate,
        "is no certificate chain in PEM (" + TakeLastError() + "): " + kConsequence,
        "put the router's certificate there, then those that issued it");
    return false;
  }
  CheckDates(context, files.certificate, SSL_CTX_get0_certificate(tls));
  STACK_OF(X509)* issuers = nullptr;
  SSL_CTX_get0_chain_certs(tls, &issuers);
  for (int i = 0; i < sk_X509_num(issuers); ++i) {
    CheckDates(context, files.certificate, sk_X509_value(issuers, i));
  }
  return true;
}

void CheckKey(const CheckContext& context, const TlsFiles& files, SSL_CTX* tls,
              bool hasCertificate) {
  if (!IsReadable(context, files.key)) {
    return;
  }
  bool isEncrypted = false;
  SSL_CTX_set_default_passwd_cb(tls, RefusePassPhrase);
  SSL_CTX_set_default_passwd_cb_userdata(tls, &isEncrypted);
  const bool isLoaded = SSL_CTX_use_PrivateKey_file(tls, files.key.c_str(), SSL_FILETYPE_PEM) == 1;
  const bool isMismatch = !isLoaded && ERR_GET_LIB(ERR_peek_last_error()) == ERR_LIB_X509;
  if (isEncrypted) {
    context.findings->Add(
        files.key, std::string("has a pass phrase, which nobody can type in: ") + kConsequence,
        "openssl pkey -in " + files.key + " -out the-same-without");
  } else if (!isLoaded && !isMismatch) {
    context.findings->Add(files.key,
                          "is no private key in PEM (" + TakeLastError() + "): " + kConsequence,
                          "put the key of " + files.certificate + " there");
  } else if (hasCertificate && SSL_CTX_check_private_key(tls) != 1) {
    context.findings->Add(files.key, "is not the key of " + files.certificate + ": " + kConsequence,
                          "put the two there that belong together");
  }
  ERR_clear_error();
}

}  // namespace

void CheckTlsFiles(const CheckContext& context) {
  const std::string directory = context.settings.AgentDirectory();
  const TlsFiles files = {directory + "/mirel.crt", directory + "/mirel.key"};
  const std::string cure = "put certificate and key there before the first start";
  const bool hasCertificate = CheckNeed(context, {files.certificate, R_OK, kConsequence, cure});
  const bool hasKey = CheckNeed(context, {files.key, R_OK, kConsequence, cure});
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> tls(SSL_CTX_new(TLS_server_method()),
                                                              SSL_CTX_free);
  if (tls == nullptr) {
    context.findings->AddUnseen(directory, "OpenSSL cannot be used: " + TakeLastError());
    return;
  }
  const bool isComparable = hasCertificate && CheckCertificate(context, files, tls.get());
  if (hasKey) {
    CheckKey(context, files, tls.get(), isComparable);
  }
}

}  // namespace tavlo::ctl

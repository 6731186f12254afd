#include "platform/curl_errors.h"

#include <cerrno>

namespace tqplatform {
namespace {

// X509_V_ERR_* values of OpenSSL, which libcurl reports through CURLINFO_SSL_VERIFYRESULT. They
// are fixed by OpenSSL's ABI; named here to avoid depending on OpenSSL's headers.
constexpr long kCertNotYetValid = 9;
constexpr long kCertHasExpired = 10;
constexpr long kDepthZeroSelfSigned = 18;
constexpr long kSelfSignedInChain = 19;
constexpr long kUnableToGetIssuerLocally = 20;
constexpr long kUnableToVerifyLeaf = 21;
constexpr long kCertRevoked = 23;
constexpr long kCertUntrusted = 27;
constexpr long kHostnameMismatch = 62;
constexpr long kIpAddressMismatch = 64;

DWORD CertificateError(CURL* easy) {
  long verify = 0;
  if (easy != nullptr) curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verify);
  switch (verify) {
    case kCertNotYetValid:
    case kCertHasExpired:
      return ERROR_INTERNET_SEC_CERT_DATE_INVALID;
    case kDepthZeroSelfSigned:
    case kSelfSignedInChain:
    case kUnableToGetIssuerLocally:
    case kUnableToVerifyLeaf:
    case kCertUntrusted:
      return ERROR_INTERNET_INVALID_CA;
    case kCertRevoked:
      return ERROR_INTERNET_SEC_CERT_REVOKED;
    case kHostnameMismatch:
    case kIpAddressMismatch:
    // libcurl checks the host name itself before it reads the chain's result, and then still
    // reports its initial "not OK" value (1): the chain was not the problem.
    case 0:
    case 1:
      return ERROR_INTERNET_SEC_CERT_CN_INVALID;
    default:
      return ERROR_INTERNET_SEC_INVALID_CERT;
  }
}

long OsErrno(CURL* easy) {
  long os_errno = 0;
  if (easy != nullptr) curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &os_errno);
  return os_errno;
}

// The TLS failures; anything else is an internal error.
DWORD TlsError(CURLcode code, CURL* easy) {
  switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
      return CertificateError(easy);
    case CURLE_SSL_CERTPROBLEM:
      return ERROR_INTERNET_CLIENT_AUTH_CERT_NEEDED;
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return ERROR_INTERNET_INVALID_CA;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_USE_SSL_FAILED:
      return ERROR_INTERNET_SECURITY_CHANNEL_ERROR;
    default:
      return ERROR_INTERNET_INTERNAL_ERROR;
  }
}

}  // namespace

DWORD WinInetErrorFromCurl(CURLcode code, CURL* easy, bool stale_system_error) {
  switch (code) {
    case CURLE_OK:
      return ERROR_SUCCESS;
    case CURLE_OPERATION_TIMEDOUT:
      return ERROR_INTERNET_TIMEOUT;
    case CURLE_COULDNT_RESOLVE_HOST:
      return ERROR_INTERNET_NAME_NOT_RESOLVED;
    case CURLE_COULDNT_RESOLVE_PROXY:
      return ERROR_INTERNET_PROXY_SERVER_UNREACHABLE;
    case CURLE_COULDNT_CONNECT:
      return ERROR_INTERNET_CANNOT_CONNECT;
    case CURLE_URL_MALFORMAT:
      return ERROR_INTERNET_INVALID_URL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      // The scheme is always http or https here, so this is libcurl refusing a response
      // without a status line (HTTP/0.9).
      return ERROR_HTTP_INVALID_SERVER_RESPONSE;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3:
    case CURLE_FILESIZE_EXCEEDED:
      return ERROR_HTTP_INVALID_SERVER_RESPONSE;
    case CURLE_BAD_CONTENT_ENCODING:
      return ERROR_INTERNET_DECODING_FAILED;
    case CURLE_PARTIAL_FILE:
      return ERROR_INTERNET_CONNECTION_ABORTED;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR: {
      const long os_errno = stale_system_error ? 0 : OsErrno(easy);
      if (os_errno == ECONNRESET || os_errno == EPIPE) return ERROR_INTERNET_CONNECTION_RESET;
      // With no system error, libcurl refused the bytes themselves (a malformed chunk).
      if (os_errno == 0 && code == CURLE_RECV_ERROR) return ERROR_HTTP_INVALID_SERVER_RESPONSE;
      return ERROR_INTERNET_CONNECTION_ABORTED;
    }
    case CURLE_LOGIN_DENIED:
    case CURLE_AUTH_ERROR:
      return ERROR_INTERNET_LOGIN_FAILURE;
    case CURLE_TOO_MANY_REDIRECTS:
      return ERROR_HTTP_REDIRECT_FAILED;
    case CURLE_OUT_OF_MEMORY:
      return ERROR_NOT_ENOUGH_MEMORY;
    case CURLE_ABORTED_BY_CALLBACK:
      return ERROR_INTERNET_OPERATION_CANCELLED;
    default:
      return TlsError(code, easy);
  }
}

}  // namespace tqplatform

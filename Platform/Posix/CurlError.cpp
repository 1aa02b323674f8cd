#include "Posix/CurlError.h"

#include <cerrno>

namespace platform::posix {
namespace {

/// NSURLError.h.
enum URLErrorCode : std::int64_t {
  unknown = -1,
  timedOut = -1001,
  badURL = -1000,
  unsupportedURL = -1002,
  cannotFindHost = -1003,
  cannotConnectToHost = -1004,
  networkConnectionLost = -1005,
  tooManyRedirects = -1007,
  notConnectedToInternet = -1009,
  cannotDecodeContent = -1016,
  cannotParseResponse = -1017,
  fileDoesNotExist = -1100,
  fileIsDirectory = -1101,
  noPermissionToReadFile = -1102,
  dataLengthExceedsMaximum = -1103,
  secureConnectionFailed = -1200,
  certificateUntrusted = -1202,
  cannotWriteToFile = -3003,
};

URLErrorCode connectionError(long systemError) {
  switch (systemError) {
    case ETIMEDOUT:
      return timedOut;
    case ENETUNREACH:
    case ENETDOWN:
      return notConnectedToInternet;
    default:
      return cannotConnectToHost;
  }
}

URLErrorCode errorCode(CURLcode code, long systemError) {
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      return unsupportedURL;
    case CURLE_URL_MALFORMAT:
      return badURL;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return connectionError(systemError);
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_ABORTED_BY_CALLBACK:  // only the idle time-out aborts
      return timedOut;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return networkConnectionLost;
    case CURLE_WRITE_ERROR:
      return cannotWriteToFile;
    case CURLE_SSL_CONNECT_ERROR:
      return secureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION:
      return certificateUntrusted;
    case CURLE_TOO_MANY_REDIRECTS:
      return tooManyRedirects;
    case CURLE_BAD_CONTENT_ENCODING:
      return cannotDecodeContent;
    case CURLE_WEIRD_SERVER_REPLY:
      return cannotParseResponse;
    default:
      return unknown;
  }
}

}  // namespace

NSError fileURLError(int systemError) {
  switch (systemError) {
    case EISDIR:
      return {NSURLErrorDomain, fileIsDirectory};
    case EACCES:
    case EPERM:
      return {NSURLErrorDomain, noPermissionToReadFile};
    default:
      return {NSURLErrorDomain, fileDoesNotExist};
  }
}

NSError dataTooLongError() {
  return {NSURLErrorDomain, dataLengthExceedsMaximum};
}

NSError urlError(CURLcode code, long systemError) {
  return {NSURLErrorDomain, errorCode(code, systemError)};
}

}  // namespace platform::posix

// An in-process HTTP server on 127.0.0.1 (cpp-httplib) with faults that a
// test scripts per path: a status, a truncated or corrupt body, a
// stall, a throttle, a wrong or ignored byte range, redirects. Serves single
// byte ranges itself ("bytes=a-b", "bytes=a-") so the faults can bend them.
//
// The server runs on its own threads from construction to destruction; every
// method may be called from any thread while it runs.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pkgdlv::testing {

struct HttpFault {
  int status = 0;                          // answer with this status and an empty body (0: serve normally)
  bool ignoreRange = false;                // answer a range request with 200 and the whole body
  std::optional<std::string> contentRange = {};  // answer a range request with this Content-Range (and what was asked)
  uint64_t truncateAfter = UINT64_MAX;     // close the connection after this many body bytes
  uint64_t stallAfter = UINT64_MAX;        // send this many body bytes, then send nothing more
  int64_t corruptByte = -1;                // flip the bits of this byte of the body
  uint64_t bytesPerSecond = 0;             // send no faster than this (0: as fast as possible)
  bool requireAuth = false;                // 401 with a Basic challenge unless Authorization is sent
  // Response headers sent with a fault status (Retry-After with a 503, say).
  std::vector<std::pair<std::string, std::string>> statusHeaders = {};
};

struct RecordedRequest {
  std::string method;
  std::string path;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string query;  // what follows "?" in the request target, percent-decoded; empty when none
  // The query's parameters as a server reads them: split at "&" and "=",
  // then each part percent-decoded ("+" is a space), in order.
  std::vector<std::pair<std::string, std::string>> params;
  std::string Header(std::string_view name) const;  // case-insensitive; empty when absent
  std::string Param(std::string_view name) const;   // the first of that name; empty when absent
};

class HttpTestServer {
 public:
  HttpTestServer();  // throws std::runtime_error when it cannot listen
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  int port() const;
  // "http://127.0.0.1:<port>" followed by path (which starts with "/").
  std::string Url(std::string_view path) const;

  // Serves body at path (GET and POST), with extra response headers.
  void AddFile(const std::string& path, std::string body,
               std::vector<std::pair<std::string, std::string>> headers = {});
  // Answers path with a redirect to target (absolute URL or "/path").
  void AddRedirect(const std::string& path, const std::string& target, int status = 302);
  void SetFault(const std::string& path, const HttpFault& fault);

  std::vector<RecordedRequest> Requests() const;
  size_t RequestCount(std::string_view path) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace pkgdlv::testing

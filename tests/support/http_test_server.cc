#include "support/http_test_server.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "util/strings.h"

namespace pkgdlv::testing {
namespace {

constexpr size_t kChunk = 16384;

struct Route {
  std::shared_ptr<const std::string> body;  // null for a redirect
  std::vector<std::pair<std::string, std::string>> headers;
  std::string target;
  int status = 302;
};

// "bytes=a-b" or "bytes=a-": one range, clipped to size; nullopt when absent
// or not of that form.
std::optional<std::pair<uint64_t, uint64_t>> ParseRange(const std::string& header, uint64_t size) {
  unsigned long long first = 0, last = UINT64_MAX;
  int end = 0;
  if (std::sscanf(header.c_str(), "bytes=%llu-%n%llu%n", &first, &end, &last, &end) < 1 ||
      static_cast<size_t>(end) != header.size() || last < first) {
    return std::nullopt;
  }
  return std::make_pair(uint64_t{first}, std::min<uint64_t>(last, size == 0 ? 0 : size - 1));
}

// The parameters of a raw query, in order (the server's own parsing keeps
// them in a map, which hides a value cut in two).
std::vector<std::pair<std::string, std::string>> SplitQuery(const std::string& query) {
  std::vector<std::pair<std::string, std::string>> params;
  size_t start = 0;
  while (start <= query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string part = query.substr(start, end - start);
    const size_t equals = part.find('=');
    params.emplace_back(httplib::detail::decode_url(part.substr(0, equals), true),
                        equals == std::string::npos ? std::string()
                                                    : httplib::detail::decode_url(part.substr(equals + 1), true));
    start = end + 1;
  }
  return params;
}

}  // namespace

struct HttpTestServer::State {
  httplib::Server server;
  std::thread thread;
  int port = 0;
  std::atomic<bool> stopping{false};
  mutable std::mutex mutex;
  std::map<std::string, Route> routes;
  std::map<std::string, HttpFault> faults;
  std::vector<RecordedRequest> requests;

  // Sleeps up to ms, less when the server stops; false when it stops.
  bool Sleep(uint64_t ms) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
         std::chrono::steady_clock::now() < end && !stopping;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::min<uint64_t>(ms, 5)));
    }
    return !stopping;
  }

  void Handle(const httplib::Request& request, httplib::Response& response);
  void ServeBody(const httplib::Request& request, httplib::Response& response, const Route& route,
                 const HttpFault& fault);
};

void HttpTestServer::State::Handle(const httplib::Request& request, httplib::Response& response) {
  std::optional<Route> route;
  HttpFault fault;
  {
    std::lock_guard lock(mutex);
    RecordedRequest recorded{request.method, request.path, request.body, {}, {}, {}};
    for (const auto& [name, value] : request.headers) recorded.headers.emplace_back(name, value);
    if (size_t mark = request.target.find('?'); mark != std::string::npos) {
      recorded.query = httplib::detail::decode_url(request.target.substr(mark + 1), false);
      recorded.params = SplitQuery(request.target.substr(mark + 1));
    }
    requests.push_back(std::move(recorded));
    if (auto it = routes.find(request.path); it != routes.end()) route = it->second;
    if (auto it = faults.find(request.path); it != faults.end()) fault = it->second;
  }
  if (fault.requireAuth && !request.has_header("Authorization")) {
    response.status = 401;
    response.set_header("WWW-Authenticate", "Basic realm=\"packages\"");
    response.set_content("authenticate", "text/plain");
    return;
  }
  if (fault.status) {
    response.status = fault.status;
    for (const auto& [name, value] : fault.statusHeaders) response.set_header(name, value);
    response.set_content("fault", "text/plain");
    return;
  }
  if (!route) {
    response.status = 404;
    response.set_content("not found", "text/plain");
  } else if (!route->body) {
    response.set_redirect(route->target, route->status);
  } else {
    for (const auto& [name, value] : route->headers) response.set_header(name, value);
    ServeBody(request, response, *route, fault);
  }
}

void HttpTestServer::State::ServeBody(const httplib::Request& request, httplib::Response& response,
                                      const Route& route, const HttpFault& fault) {
  const std::shared_ptr<const std::string> body = route.body;
  uint64_t start = 0;
  uint64_t length = body->size();
  response.status = 200;
  if (request.has_header("Range") && !fault.ignoreRange) {
    auto range = ParseRange(request.get_header_value("Range"), body->size());
    if (!range || range->first >= body->size()) {
      response.status = 416;
      response.set_header("Content-Range", "bytes */" + std::to_string(body->size()));
      return;
    }
    start = range->first;
    length = range->second - range->first + 1;
    response.status = 206;
    response.set_header("Content-Range", fault.contentRange.value_or("bytes " + std::to_string(range->first) + "-" +
                                                                     std::to_string(range->second) + "/" +
                                                                     std::to_string(body->size())));
  }
  // Hands out the body from start on in chunks, bending it as the fault says;
  // offset counts from start.
  auto produce = [this, body, start, length, fault](uint64_t offset, httplib::DataSink& sink) -> bool {
    if (offset >= fault.truncateAfter) return false;
    if (offset >= fault.stallAfter) {
      while (Sleep(20)) {
      }
      return false;
    }
    uint64_t n = std::min<uint64_t>({length - offset, kChunk, fault.truncateAfter - offset, fault.stallAfter - offset});
    if (fault.bytesPerSecond) {
      n = std::min<uint64_t>(n, std::max<uint64_t>(1, fault.bytesPerSecond / 20));
      if (!Sleep(n * 1000 / fault.bytesPerSecond)) return false;
    }
    std::string chunk = body->substr(start + offset, static_cast<size_t>(n));
    int64_t corrupt = fault.corruptByte - static_cast<int64_t>(start + offset);
    if (corrupt >= 0 && corrupt < static_cast<int64_t>(n)) chunk[static_cast<size_t>(corrupt)] ^= 0xFF;
    return sink.write(chunk.data(), chunk.size());
  };
  response.set_content_provider(static_cast<size_t>(length), "application/octet-stream",
                                [produce](size_t offset, size_t, httplib::DataSink& sink) { return produce(offset, sink); });
}

std::string RecordedRequest::Header(std::string_view name) const {
  for (const auto& [header, value] : headers) {
    if (EqualsNoCase(header, name)) return value;
  }
  return {};
}

std::string RecordedRequest::Param(std::string_view name) const {
  for (const auto& [key, value] : params) {
    if (key == name) return value;
  }
  return {};
}

HttpTestServer::HttpTestServer() : state_(std::make_shared<State>()) {
  State* state = state_.get();
  // The server's own range handling would cut our bodies a second time; the
  // handler serves ranges itself, from the Range header.
  state->server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
    const_cast<httplib::Request&>(request).ranges.clear();
    return httplib::Server::HandlerResponse::Unhandled;
  });
  auto handler = [state](const httplib::Request& request, httplib::Response& response) {
    state->Handle(request, response);
  };
  state->server.Get(".*", handler);
  state->server.Post(".*", handler);
  state->port = state->server.bind_to_any_port("127.0.0.1");
  if (state->port <= 0) throw std::runtime_error("the test HTTP server cannot listen");
  state->thread = std::thread([state] { state->server.listen_after_bind(); });
  while (!state->server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

HttpTestServer::~HttpTestServer() {
  state_->stopping = true;
  state_->server.stop();
  if (state_->thread.joinable()) state_->thread.join();
}

int HttpTestServer::port() const { return state_->port; }

std::string HttpTestServer::Url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(state_->port) + std::string(path);
}

void HttpTestServer::AddFile(const std::string& path, std::string body,
                             std::vector<std::pair<std::string, std::string>> headers) {
  std::lock_guard lock(state_->mutex);
  state_->routes[path] = Route{std::make_shared<const std::string>(std::move(body)), std::move(headers), {}, 0};
}

void HttpTestServer::AddRedirect(const std::string& path, const std::string& target, int status) {
  std::lock_guard lock(state_->mutex);
  state_->routes[path] = Route{nullptr, {}, target, status};
}

void HttpTestServer::SetFault(const std::string& path, const HttpFault& fault) {
  std::lock_guard lock(state_->mutex);
  state_->faults[path] = fault;
}

std::vector<RecordedRequest> HttpTestServer::Requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

size_t HttpTestServer::RequestCount(std::string_view path) const {
  std::lock_guard lock(state_->mutex);
  return static_cast<size_t>(std::count_if(state_->requests.begin(), state_->requests.end(),
                                           [&](const RecordedRequest& r) { return r.path == path; }));
}

}  // namespace pkgdlv::testing

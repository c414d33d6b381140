#include "support/LoopbackServer.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <strings.h>

#include <algorithm>

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& entry) { return strcasecmp(entry.first.c_str(), name.c_str()) == 0; });
}

ScriptedResponse ScriptedResponse::json(std::string body, int status) {
  ScriptedResponse response;
  response.status = status;
  response.body = std::move(body);
  return response;
}

ScriptedResponse ScriptedResponse::text(std::string body, int status) {
  ScriptedResponse response = json(std::move(body), status);
  response.contentType = "text/plain";
  return response;
}

LoopbackServer::LoopbackServer() : server_(std::make_unique<httplib::Server>()) {
  // Every request reaches one catch-all handler, after its body has been read.
  auto answer = [this](const httplib::Request& raw, httplib::Response& response) {
    RecordedRequest request{raw.method, raw.path, raw.target, {}, raw.body};
    for (const auto& [name, value] : raw.headers) {
      // httplib adds the connection's addresses as headers of its own
      if (!name.starts_with("REMOTE_") && !name.starts_with("LOCAL_")) request.headers.emplace_back(name, value);
    }
    Handler handler;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      for (const std::string& key : {request.method + " " + request.target, request.method + " " + request.path}) {
        if (auto found = routes_.find(key); found != routes_.end() && !handler) handler = found->second;
      }
    }
    arrived_.notify_all();

    ScriptedResponse scripted;
    if (handler) {
      scripted = handler(request);
    } else {
      ADD_FAILURE() << "unexpected request: " << request.method << " " << request.target;
      scripted = ScriptedResponse::text("unexpected request", 599);
    }
    if (scripted.delay.count() > 0) {
      // A long delay stands for a server that never answers; it ends early when the server stops.
      std::unique_lock lock(mutex_);
      stopped_.wait_for(lock, scripted.delay, [this] { return stopping_; });
    }

    response.status = scripted.status;
    for (const auto& [name, value] : scripted.headers) response.set_header(name, value);
    if (scripted.endless) {
      response.set_chunked_content_provider(scripted.contentType, [this](size_t, httplib::DataSink& sink) {
        static const std::string chunk(64 * 1024, 'x');
        {
          std::lock_guard lock(mutex_);
          if (stopping_) return false;
        }
        return sink.write(chunk.data(), chunk.size());
      });
    } else if (scripted.trickleInterval.count() > 0) {
      response.set_chunked_content_provider(
          scripted.contentType, [scripted, sent = std::size_t{0}](size_t, httplib::DataSink& sink) mutable {
            if (sent >= scripted.body.size()) {
              sink.done();
              return true;
            }
            if (sent > 0) std::this_thread::sleep_for(scripted.trickleInterval);
            std::size_t piece = std::min<std::size_t>(1024, scripted.body.size() - sent);
            bool written = sink.write(scripted.body.data() + sent, piece);
            sent += piece;
            return written;
          });
    } else if (scripted.dropConnection) {
      std::string partial = scripted.body.substr(0, scripted.body.size() / 2);
      response.set_content_provider(scripted.body.size() + 1, scripted.contentType,
                                    [partial](size_t offset, size_t, httplib::DataSink& sink) {
                                      if (offset == 0 && !partial.empty()) sink.write(partial.data(), partial.size());
                                      return false;  // closes the connection before the body is complete
                                    });
    } else {
      response.set_content(scripted.body, scripted.contentType);
    }
  };
  server_->Get(".*", answer);
  server_->Post(".*", answer);
  // One request per connection: a client's pooled connection must not hold the server open at the end.
  server_->set_keep_alive_max_count(1);

  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("the loopback server cannot listen");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // Listening has begun at bind; stop() is only safe once the accept loop runs.
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string LoopbackServer::baseAddress() const { return "http://127.0.0.1:" + std::to_string(port_); }

void LoopbackServer::on(const std::string& method, const std::string& route, ScriptedResponse response) {
  onHandler(method, route, [response](const RecordedRequest&) { return response; });
}

void LoopbackServer::onSequence(const std::string& method, const std::string& route,
                                std::vector<ScriptedResponse> responses) {
  struct Script {
    std::mutex mutex;
    std::vector<ScriptedResponse> responses;
    std::size_t next = 0;
  };
  auto script = std::make_shared<Script>();
  script->responses = std::move(responses);
  onHandler(method, route, [script, method, route](const RecordedRequest&) {
    std::lock_guard lock(script->mutex);
    if (script->next < script->responses.size()) return script->responses[script->next++];
    ADD_FAILURE() << "more requests than scripted answers: " << method << " " << route;
    return ScriptedResponse::text("no more answers", 599);
  });
}

void LoopbackServer::onHandler(const std::string& method, const std::string& route, Handler handler) {
  std::lock_guard lock(mutex_);
  routes_[method + " " + route] = std::move(handler);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t LoopbackServer::requestCount(const std::string& method, const std::string& route) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(requests_.begin(), requests_.end(), [&](const RecordedRequest& r) {
    return r.method == method && (r.target == route || r.path == route);
  }));
}

bool LoopbackServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

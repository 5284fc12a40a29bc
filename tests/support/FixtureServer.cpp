// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/FixtureServer.h"

#include <httplib.h>

#include <algorithm>

#include "tests/support/Wait.h"

namespace testsupport {

FixtureServer::FixtureServer() : server_(std::make_unique<httplib::Server>()) {
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        dispatch(req, res);
    };
    for (auto method : {&httplib::Server::Get, &httplib::Server::Post, &httplib::Server::Put,
                        &httplib::Server::Delete, &httplib::Server::Patch}) {
        (server_.get()->*method)(".*", handler);
    }
    // One request per connection: a kept-alive connection would hold up stop() for seconds.
    server_->set_keep_alive_max_count(1);
    port_ = server_->bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() only stops a server that is already running: wait for the accept loop.
    while (!server_->is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

FixtureServer::~FixtureServer() {
    releaseStalled();
    server_->stop();
    if (thread_.joinable())
        thread_.join();
}

int FixtureServer::closedPort() {
    FixtureServer gone;
    return gone.port();
}

FixtureServer& FixtureServer::sharedService() {
    static auto* shared = [] {
        auto* server = new FixtureServer();
        qputenv("FERRYBOX_API_URL", (server->baseUrl() + QStringLiteral("/api")).toUtf8());
        return server;
    }();
    return *shared;
}

QString FixtureServer::baseUrl() const {
    return QStringLiteral("http://127.0.0.1:%1").arg(port_);
}

void FixtureServer::on(const std::string& method, const std::string& path, Handler handler) {
    std::lock_guard lock(mutex_);
    routes_[{method, path}] = std::move(handler);
}

void FixtureServer::clearRoutes() {
    std::lock_guard lock(mutex_);
    routes_.clear();
}

std::vector<FixtureServer::Request> FixtureServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void FixtureServer::clearRequests() {
    std::lock_guard lock(mutex_);
    requests_.clear();
}

bool FixtureServer::waitForRequests(std::size_t n, int timeoutMs) const {
    return waitUntil([&] { return requests().size() >= n; }, timeoutMs);
}

void FixtureServer::dispatch(const httplib::Request& req, httplib::Response& res) {
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        Request recorded{req.method, req.path, {}, req.body, {}};
        const auto question = req.target.find('?');
        if (question != std::string::npos)
            recorded.query = req.target.substr(question + 1);
        for (const auto& [name, value] : req.headers)
            recorded.headers.emplace(name, value);
        requests_.push_back(std::move(recorded));
        if (auto it = routes_.find({req.method, req.path}); it != routes_.end()) {
            handler = it->second;
        }
    }
    if (handler) {
        handler(req, res);
    } else {
        res.status = 404;
    }
}

FixtureServer::Handler FixtureServer::respond(int status, std::string body,
                                              std::multimap<std::string, std::string> headers) {
    return [=](const httplib::Request&, httplib::Response& res) {
        res.status = status;
        for (const auto& [name, value] : headers)
            res.set_header(name, value);
        res.set_content(body, "text/plain; charset=utf-8");
    };
}

FixtureServer::Handler FixtureServer::redirectTo(std::string location, std::string body,
                                                 int status) {
    return [=](const httplib::Request&, httplib::Response& res) {
        res.status = status;
        res.set_header("Location", location);
        res.set_content(body, "text/plain; charset=utf-8");
    };
}

FixtureServer::Handler FixtureServer::sequence(std::vector<Handler> handlers) {
    auto state = std::make_shared<std::pair<std::mutex, std::size_t>>();
    return [handlers = std::move(handlers), state](const httplib::Request& req,
                                                   httplib::Response& res) {
        std::size_t index;
        {
            std::lock_guard lock(state->first);
            index = std::min(state->second++, handlers.size() - 1);
        }
        handlers[index](req, res);
    };
}

FixtureServer::Handler FixtureServer::stall(int status, std::string body) {
    {
        std::lock_guard lock(mutex_);
        stallReleased_ = false;
    }
    return [this, status, body](const httplib::Request&, httplib::Response& res) {
        std::unique_lock lock(mutex_);
        stallCv_.wait(lock, [this] { return stallReleased_; });
        res.status = status;
        res.set_content(body, "text/plain; charset=utf-8");
    };
}

FixtureServer::Handler FixtureServer::stallMidBody(std::size_t total, std::size_t first,
                                                   bool closeInstead) {
    {
        std::lock_guard lock(mutex_);
        stallReleased_ = false;
    }
    return [this, total, first, closeInstead](const httplib::Request&, httplib::Response& res) {
        res.set_content_provider(total, "application/octet-stream",
                                 [this, total, first, closeInstead](std::size_t offset, std::size_t,
                                                                    httplib::DataSink& sink) {
                                     if (offset < first) {
                                         const std::string head(first - offset, 'h');
                                         return sink.write(head.data(), head.size());
                                     }
                                     if (closeInstead)
                                         return false;
                                     std::unique_lock lock(mutex_);
                                     stallCv_.wait(lock, [this] { return stallReleased_; });
                                     lock.unlock();
                                     // In pieces: the client may be gone, and the rest large.
                                     const std::string rest(
                                         std::min<std::size_t>(total - offset, 64 * 1024), 'r');
                                     return sink.write(rest.data(), rest.size());
                                 });
    };
}

void FixtureServer::releaseStalled() {
    {
        std::lock_guard lock(mutex_);
        stallReleased_ = true;
    }
    stallCv_.notify_all();
}

}  // namespace testsupport

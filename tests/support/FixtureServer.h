// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "tests/support/QtPrinters.h"

#include <QString>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace testsupport {

// A scripted HTTP server on a free loopback port, for the answers a real service would never
// give (an empty login body, a redirect, a stalled answer). Routes are exact method and path
// matches; anything else gets 404 with an empty body. Every request is recorded.
class FixtureServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    struct Request {
        std::string method;
        std::string path;
        std::string query;  // as sent, without the "?"
        std::string body;
        std::multimap<std::string, std::string> headers;
    };

    FixtureServer();
    ~FixtureServer();
    FixtureServer(const FixtureServer&) = delete;
    FixtureServer& operator=(const FixtureServer&) = delete;

    QString baseUrl() const;  // "http://127.0.0.1:PORT"
    // A loopback port where nothing listens (a fixture's, just closed).
    static int closedPort();
    // One server for a whole test binary whose code reads the service address once per
    // process: FERRYBOX_API_URL points at its "/api" from the first call on.
    static FixtureServer& sharedService();
    int port() const { return port_; }

    void on(const std::string& method, const std::string& path, Handler handler);
    void clearRoutes();

    std::vector<Request> requests() const;
    void clearRequests();
    // Runs the Qt event loop until n requests have arrived.
    bool waitForRequests(std::size_t n, int timeoutMs = 5000) const;

    static Handler respond(int status, std::string body,
                           std::multimap<std::string, std::string> headers = {});
    static Handler redirectTo(std::string location, std::string body = {}, int status = 302);
    // Each call answers with the next handler; the last one keeps answering.
    static Handler sequence(std::vector<Handler> handlers);
    // Holds the answer until releaseStalled() or the server stops, then gives it.
    Handler stall(int status = 200, std::string body = {});
    // Announces total bytes, sends the first ones, then holds the rest until releaseStalled();
    // with closeInstead, the connection is dropped there instead.
    Handler stallMidBody(std::size_t total, std::size_t first, bool closeInstead = false);
    void releaseStalled();

private:
    void dispatch(const httplib::Request& req, httplib::Response& res);

    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, Handler> routes_;
    std::vector<Request> requests_;
    std::condition_variable stallCv_;
    bool stallReleased_ = false;
};

}  // namespace testsupport

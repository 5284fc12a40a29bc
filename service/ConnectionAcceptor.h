// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sys/socket.h>

#include <functional>
#include <thread>

namespace notes {

// Accepts the connections of a listening socket on a thread of its own and hands each one on.
// The HTTP library's workers would otherwise accept for themselves, and the first to wake takes
// every connection that is waiting: a client (or a proxy) opening its connections together gets
// all of them served by one worker, on one processor, while the others idle. Handed on one by
// one, they are spread over the workers.
class ConnectionAcceptor {
public:
    // Takes a connection (socket, peer address); owns it from then on.
    using Handler = std::function<void(int socket, const sockaddr* peer, socklen_t length)>;

    // Takes over the listening socket (non-blocking) and starts accepting.
    ConnectionAcceptor(int listening, Handler handler);
    // Stops accepting and closes the listening socket; connections handed on are not touched.
    ~ConnectionAcceptor();
    ConnectionAcceptor(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor& operator=(const ConnectionAcceptor&) = delete;

private:
    void run();

    int listening_;
    int wake_;
    Handler handler_;
    std::thread thread_;
};

}  // namespace notes

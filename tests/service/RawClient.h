// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A bare TCP client for playing hostile HTTP clients: it sends exactly the bytes it is given,
// from a chosen loopback source address, and tells when the server hung up.
#include <functional>
#include <string>
#include <vector>

namespace servicetest {

struct RawAnswer {
    int status = 0;
    std::string body;
};

// The complete answers at the start of raw bytes read from a connection.
std::vector<RawAnswer> parseAnswers(const std::string& raw);

// An answer whose body is still coming (a stream): its status line and headers once they are
// in, and as much of the body as has come, chunked transfer coding undone.
struct StreamedAnswer {
    int status = 0;         // 0 until the whole head is in
    std::string head;       // status line and headers
    std::string body;       // the body so far
    bool finished = false;  // the last chunk came
};
StreamedAnswer parseStreamed(const std::string& raw);

class RawClient {
public:
    // Connects from source (an IPv4 address such as "127.0.0.2") to 127.0.0.1:port.
    RawClient(const char* source, int port);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    // False once the peer closed or reset the connection, or a send stalled for 3 s.
    bool send(const std::string& bytes);
    // Something (data or the end) is waiting to be read.
    bool readable() const;
    // Reads until `answers` complete answers are in, the peer closed, or timeoutMs passed.
    const std::string& read(int timeoutMs, int answers = 1);
    // Reads, keeping what comes, until the peer closes (true) or timeoutMs passed (false).
    bool waitClosed(int timeoutMs);
    // Reads, keeping what comes, until done(everything received) holds (true), the peer closed
    // or timeoutMs passed.
    bool readUntil(const std::function<bool(const std::string&)>& done, int timeoutMs);
    const std::string& received() const { return received_; }
    // Hangs up: with a reset when abruptly, else in order.
    void hangUp(bool abruptly = false);
    // A read found the end of the connection (after everything the server sent before it).
    bool closed() const { return closed_; }
    // The status of the last complete answer read, 0 when there is none.
    int status() const;

private:
    int fd_ = -1;
    bool broken_ = false;  // a send found the connection closed or reset
    bool closed_ = false;  // a read did
    std::string received_;
};

}  // namespace servicetest

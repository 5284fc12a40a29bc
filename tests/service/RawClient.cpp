// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/service/RawClient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <limits>

namespace servicetest {

std::vector<RawAnswer> parseAnswers(const std::string& raw) {
    std::vector<RawAnswer> answers;
    std::size_t at = 0;
    while (raw.compare(at, 5, "HTTP/") == 0) {
        const std::size_t end = raw.find("\r\n\r\n", at);
        if (end == std::string::npos)
            break;
        RawAnswer answer;
        answer.status = std::atoi(raw.c_str() + raw.find(' ', at) + 1);
        std::size_t length = 0;
        for (std::size_t line = raw.find("\r\n", at) + 2; line < end;
             line = raw.find("\r\n", line) + 2) {
            if (strncasecmp(raw.c_str() + line, "Content-Length:", 15) == 0)
                length = std::strtoul(raw.c_str() + line + 15, nullptr, 10);
        }
        if (raw.size() < end + 4 + length)
            break;
        answer.body = raw.substr(end + 4, length);
        answers.push_back(answer);
        at = end + 4 + length;
    }
    return answers;
}

StreamedAnswer parseStreamed(const std::string& raw) {
    StreamedAnswer answer;
    const std::size_t end = raw.find("\r\n\r\n");
    if (raw.compare(0, 5, "HTTP/") != 0 || end == std::string::npos)
        return answer;
    answer.head = raw.substr(0, end + 2);
    answer.status = std::atoi(raw.c_str() + raw.find(' ') + 1);
    bool chunked = false;
    for (std::size_t line = raw.find("\r\n") + 2; line < end; line = raw.find("\r\n", line) + 2) {
        if (strncasecmp(raw.c_str() + line, "Transfer-Encoding: chunked", 26) == 0)
            chunked = true;
    }
    std::size_t at = end + 4;
    if (!chunked) {
        answer.body = raw.substr(at);
        return answer;
    }
    for (;;) {
        const std::size_t sizeEnd = raw.find("\r\n", at);
        if (sizeEnd == std::string::npos)
            break;
        const std::size_t size = std::strtoul(raw.c_str() + at, nullptr, 16);
        if (size == 0) {
            answer.finished = true;
            break;
        }
        if (raw.size() < sizeEnd + 2 + size + 2)
            break;
        answer.body.append(raw, sizeEnd + 2, size);
        at = sizeEnd + 2 + size + 2;
    }
    return answer;
}

RawClient::RawClient(const char* source, int port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    // A small send buffer, so that what send() accepted is close to what the server was offered.
    const int buffer = 64 * 1024;
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    sockaddr_in from{}, to{};
    from.sin_family = to.sin_family = AF_INET;
    ::inet_pton(AF_INET, source, &from.sin_addr);
    ::inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    to.sin_port = htons(static_cast<uint16_t>(port));
    pollfd p{fd_, POLLOUT, 0};
    int error = 0;
    socklen_t size = sizeof error;
    const bool ok = ::bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from) == 0 &&
                    (::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0 ||
                     (errno == EINPROGRESS && ::poll(&p, 1, 3000) == 1 &&
                      ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0));
    if (!ok) {
        ::close(fd_);
        fd_ = -1;
        closed_ = broken_ = true;
        return;
    }
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
    const timeval stall{3, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &stall, sizeof stall);
}

RawClient::~RawClient() {
    if (fd_ >= 0)
        ::close(fd_);
}

bool RawClient::send(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size() && !broken_;) {
        const ssize_t n = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return false;  // stalled: the server stopped reading
        if (n < 0 && errno != EINTR)
            broken_ = true;  // what the server sent before it hung up can still be read
        at += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return !broken_;
}

bool RawClient::readable() const {
    pollfd p{fd_, POLLIN, 0};
    return closed_ || broken_ || ::poll(&p, 1, 0) == 1;
}

const std::string& RawClient::read(int timeoutMs, int answers) {
    readUntil(
        [&](const std::string& received) {
            return closed_ || static_cast<int>(parseAnswers(received).size()) >= answers;
        },
        timeoutMs);
    return received_;
}

bool RawClient::readUntil(const std::function<bool(const std::string&)>& done, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done(received_)) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{fd_, POLLIN, 0};
        if (closed_ || ::poll(&p, 1, static_cast<int>(std::max<long>(0, left.count()))) != 1)
            return false;
        char buffer[16384];
        const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n > 0)
            received_.append(buffer, static_cast<std::size_t>(n));
        else if (n == 0 || errno != EINTR)
            closed_ = true;
    }
    return true;
}

void RawClient::hangUp(bool abruptly) {
    if (fd_ < 0)
        return;
    if (abruptly) {
        const linger now{1, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    ::close(fd_);
    fd_ = -1;
    closed_ = broken_ = true;
}

bool RawClient::waitClosed(int timeoutMs) {
    read(timeoutMs, std::numeric_limits<int>::max());
    return closed_;
}

int RawClient::status() const {
    const auto answers = parseAnswers(received_);
    return answers.empty() ? 0 : answers.back().status;
}

}  // namespace servicetest

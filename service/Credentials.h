// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <compare>
#include <deque>
#include <list>
#include <map>
#include <mutex>

namespace notes {

// Passwords are kept only as "pbkdf2-sha256$ITERATIONS$SALT$HASH" (hex): salted, slow, and
// carrying their own cost, so that the cost can rise later without breaking stored hashes.
// The default cost can be lowered with FERRYBOX_NOTES_HASH_ITERATIONS, which the test suite
// uses to stay fast; never set it for real accounts.
QString hashPassword(const QString& password);
bool verifyPassword(const QString& password, const QString& stored);

// A fresh session token: 128 random bits in hex. Only its SHA-256 is stored.
QString newToken();
QByteArray tokenHash(const QString& token);

// Slows down guessing: an account that failed to log in kMaxFailures times within a window
// from one client address is refused from that address until the oldest of those failures
// leaves the window. Other addresses are not held up, so a stranger cannot lock the owner out.
class LoginLimiter {
public:
    static constexpr int kMaxFailures = 5;
    struct Key {
        QString email;
        QString clientAddress;
        std::weak_ordering operator<=>(const Key&) const = default;
    };
    virtual ~LoginLimiter() = default;
    virtual bool allowed(const Key& who) = 0;
    virtual void failed(const Key& who) = 0;
    virtual void succeeded(const Key& who) = 0;
};

// The failures counted in this process's memory. The table keeps the most recent `capacity`
// pairs; the longest untouched is dropped first.
class LoginThrottle : public LoginLimiter {
public:
    explicit LoginThrottle(std::chrono::seconds window = std::chrono::seconds(60),
                           std::size_t capacity = 10000)
        : window_(window), capacity_(capacity) {}

    bool allowed(const Key& who) override;
    void failed(const Key& who) override;
    void succeeded(const Key& who) override;
    std::size_t size();

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::deque<Clock::time_point> failures;
        std::list<Key>::iterator age;
    };
    void forgetOld(std::deque<Clock::time_point>& failures, Clock::time_point now) const;

    std::chrono::seconds window_;
    std::size_t capacity_;
    std::mutex mutex_;
    std::map<Key, Entry> entries_;
    std::list<Key> byAge_;  // least recently failed first
};

}  // namespace notes

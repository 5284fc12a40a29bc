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

// Slows down guessing. An account that failed to log in kMaxFailures times within a window from
// one client address is refused from that address until the oldest of those failures leaves
// the window; so is an address (an IPv6 client by its /64, which one household gets whole)
// that failed kMaxAddressFailures times with any accounts, which stops a stranger who tries a
// new address every time. Other addresses are not held up, so a stranger cannot lock the owner
// out from elsewhere. An attempt counts as failed from the moment it is let through until it
// is told to have succeeded: checking and counting are one step, so that attempts made at the
// same moment cannot all pass the check before any of them is counted.
class LoginLimiter {
public:
    static constexpr int kMaxFailures = 5;
    static constexpr int kMaxAddressFailures = 20;
    struct Key {
        QString email;
        QString clientAddress;  // as addressGroup() gives it
        std::weak_ordering operator<=>(const Key&) const = default;
    };
    virtual ~LoginLimiter() = default;
    // Lets one attempt through, counted, or refuses it (false).
    virtual bool attempt(const Key& who) = 0;
    // The attempt was right: the account's failures from that address are forgotten.
    virtual void succeeded(const Key& who) = 0;
    // The attempt let through was never made (no room to check it): it no longer counts.
    virtual void withdraw(const Key& who) = 0;
};

// The part of a client address that failures are counted against: the address itself, or an
// IPv6 address's /64 ("2001:db8:1:2::/64").
QString addressGroup(const QString& address);

// The failures counted in this process's memory. Each table keeps the most recent `capacity`
// entries; the longest untouched is dropped first.
class LoginThrottle : public LoginLimiter {
public:
    explicit LoginThrottle(std::chrono::seconds window = std::chrono::seconds(60),
                           std::size_t capacity = 10000)
        : pairs_(window, capacity), addresses_(window, capacity) {}

    bool attempt(const Key& who) override;
    void succeeded(const Key& who) override;
    void withdraw(const Key& who) override;
    std::size_t size();

private:
    using Clock = std::chrono::steady_clock;
    // Failure times by key, the oldest first, within the window.
    template <class K>
    class Book {
    public:
        Book(std::chrono::seconds window, std::size_t capacity)
            : window_(window), capacity_(capacity) {}
        int count(const K& key, Clock::time_point now);
        void add(const K& key, Clock::time_point now);
        // The newest n, or all when n < 0.
        void forget(const K& key, int n);
        std::size_t size() const { return entries_.size(); }

    private:
        struct Entry {
            std::deque<Clock::time_point> failures;
            typename std::list<K>::iterator age;
        };
        std::chrono::seconds window_;
        std::size_t capacity_;
        std::map<K, Entry> entries_;
        std::list<K> byAge_;  // least recently failed first
    };

    std::mutex mutex_;
    Book<Key> pairs_;
    Book<QString> addresses_;
};

}  // namespace notes

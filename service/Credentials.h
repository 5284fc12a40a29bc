#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <deque>
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

// Slows down guessing: an account that failed to log in kMaxFailures times within the window is
// refused until the oldest of those failures leaves it.
class LoginThrottle {
public:
    static constexpr int kMaxFailures = 5;
    explicit LoginThrottle(std::chrono::seconds window = std::chrono::seconds(60))
        : window_(window) {}

    bool allowed(const QString& email);
    void failed(const QString& email);
    void succeeded(const QString& email);

private:
    using Clock = std::chrono::steady_clock;
    void forgetOld(std::deque<Clock::time_point>& failures, Clock::time_point now) const;

    std::chrono::seconds window_;
    std::mutex mutex_;
    std::map<QString, std::deque<Clock::time_point>> failures_;
};

}  // namespace notes

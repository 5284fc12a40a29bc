// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/Credentials.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <QCryptographicHash>
#include <QStringList>
#include <stdexcept>

namespace notes {

namespace {

constexpr int kDefaultIterations = 600000;
constexpr int kSaltBytes = 16;
constexpr int kHashBytes = 32;

int configuredIterations() {
    bool ok = false;
    const int n = qEnvironmentVariableIntValue("FERRYBOX_NOTES_HASH_ITERATIONS", &ok);
    return ok && n > 0 ? n : kDefaultIterations;
}

QByteArray randomBytes(int n) {
    QByteArray bytes(n, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), n) != 1) {
        throw std::runtime_error("no random bytes");
    }
    return bytes;
}

QByteArray pbkdf2(const QString& password, const QByteArray& salt, int iterations) {
    const QByteArray secret = password.toUtf8();
    QByteArray out(kHashBytes, '\0');
    if (PKCS5_PBKDF2_HMAC(secret.constData(), static_cast<int>(secret.size()),
                          reinterpret_cast<const unsigned char*>(salt.constData()),
                          static_cast<int>(salt.size()), iterations, EVP_sha256(), kHashBytes,
                          reinterpret_cast<unsigned char*>(out.data())) != 1) {
        throw std::runtime_error("PBKDF2 failed");
    }
    return out;
}

}  // namespace

QString hashPassword(const QString& password) {
    const int iterations = configuredIterations();
    const QByteArray salt = randomBytes(kSaltBytes);
    return QStringLiteral("pbkdf2-sha256$%1$%2$%3")
        .arg(iterations)
        .arg(QString::fromLatin1(salt.toHex()),
             QString::fromLatin1(pbkdf2(password, salt, iterations).toHex()));
}

bool verifyPassword(const QString& password, const QString& stored) {
    const QStringList parts = stored.split(QLatin1Char('$'));
    if (parts.size() != 4 || parts[0] != QLatin1String("pbkdf2-sha256"))
        return false;
    bool ok = false;
    const int iterations = parts[1].toInt(&ok);
    if (!ok || iterations <= 0)
        return false;
    const QByteArray expected = QByteArray::fromHex(parts[3].toLatin1());
    const QByteArray actual =
        pbkdf2(password, QByteArray::fromHex(parts[2].toLatin1()), iterations);
    return expected.size() == actual.size() &&
           CRYPTO_memcmp(expected.constData(), actual.constData(),
                         static_cast<std::size_t>(actual.size())) == 0;
}

QString newToken() {
    return QString::fromLatin1(randomBytes(16).toHex());
}

QByteArray tokenHash(const QString& token) {
    return QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256);
}

void LoginThrottle::forgetOld(std::deque<Clock::time_point>& failures,
                              Clock::time_point now) const {
    while (!failures.empty() && now - failures.front() >= window_)
        failures.pop_front();
}

bool LoginThrottle::allowed(const Key& who) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(who);
    if (it == entries_.end())
        return true;
    forgetOld(it->second.failures, Clock::now());
    return static_cast<int>(it->second.failures.size()) < kMaxFailures;
}

void LoginThrottle::failed(const Key& who) {
    std::lock_guard lock(mutex_);
    auto [it, added] = entries_.try_emplace(who);
    if (added) {
        it->second.age = byAge_.insert(byAge_.end(), who);
    } else {
        byAge_.splice(byAge_.end(), byAge_, it->second.age);
    }
    const Clock::time_point now = Clock::now();
    forgetOld(it->second.failures, now);
    it->second.failures.push_back(now);
    while (entries_.size() > capacity_) {
        entries_.erase(byAge_.front());
        byAge_.pop_front();
    }
}

void LoginThrottle::succeeded(const Key& who) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(who);
    if (it == entries_.end())
        return;
    byAge_.erase(it->second.age);
    entries_.erase(it);
}

std::size_t LoginThrottle::size() {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

}  // namespace notes

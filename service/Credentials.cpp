// SPDX-License-Identifier: GPL-3.0-or-later
#include "service/Credentials.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <QCryptographicHash>
#include <QStringList>
#include <cstring>
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

QString addressGroup(const QString& address) {
    in6_addr v6{};
    const QByteArray text = address.toLatin1();
    if (address.contains(QLatin1Char(':')) && inet_pton(AF_INET6, text.constData(), &v6) == 1) {
        std::memset(v6.s6_addr + 8, 0, 8);
        char out[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET6, &v6, out, sizeof out);
        return QString::fromLatin1(out) + QStringLiteral("/64");
    }
    return address;
}

template <class K>
int LoginThrottle::Book<K>::count(const K& key, Clock::time_point now) {
    auto it = entries_.find(key);
    if (it == entries_.end())
        return 0;
    auto& failures = it->second.failures;
    while (!failures.empty() && now - failures.front() >= window_)
        failures.pop_front();
    return static_cast<int>(failures.size());
}

template <class K>
void LoginThrottle::Book<K>::add(const K& key, Clock::time_point now) {
    auto [it, added] = entries_.try_emplace(key);
    if (added) {
        it->second.age = byAge_.insert(byAge_.end(), key);
    } else {
        byAge_.splice(byAge_.end(), byAge_, it->second.age);
    }
    it->second.failures.push_back(now);
    while (entries_.size() > capacity_) {
        entries_.erase(byAge_.front());
        byAge_.pop_front();
    }
}

template <class K>
void LoginThrottle::Book<K>::forget(const K& key, int n) {
    auto it = entries_.find(key);
    if (it == entries_.end())
        return;
    auto& failures = it->second.failures;
    for (int i = 0; !failures.empty() && (n < 0 || i < n); ++i)
        failures.pop_back();
    if (failures.empty()) {
        byAge_.erase(it->second.age);
        entries_.erase(it);
    }
}

bool LoginThrottle::attempt(const Key& who) {
    std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    if (pairs_.count(who, now) >= kMaxFailures ||
        addresses_.count(who.clientAddress, now) >= kMaxAddressFailures) {
        return false;
    }
    pairs_.add(who, now);
    addresses_.add(who.clientAddress, now);
    return true;
}

void LoginThrottle::succeeded(const Key& who) {
    std::lock_guard lock(mutex_);
    const int failures = pairs_.count(who, Clock::now());
    pairs_.forget(who, -1);
    // The address keeps the failures of its other accounts; the window drops the rest.
    addresses_.forget(who.clientAddress, failures);
}

void LoginThrottle::withdraw(const Key& who) {
    std::lock_guard lock(mutex_);
    pairs_.forget(who, 1);
    addresses_.forget(who.clientAddress, 1);
}

std::size_t LoginThrottle::size() {
    std::lock_guard lock(mutex_);
    return pairs_.size();
}

}  // namespace notes

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <any>
#include <functional>
#include <map>
#include <vector>

namespace foundation {

// Values travel as std::any: an action object as std::shared_ptr<LWSNObject> whatever its class
// (LWSNObject::fromNotification<T> reads it back as its own class), an error as
// foundation::Error.
using UserInfo = std::map<QString, std::any>;

struct Notification {
    QString name;
    const void* sender = nullptr;
    UserInfo userInfo;

    // The value under key when it holds a T, else nullptr.
    template <class T>
    const T* value(const QString& key) const {
        auto it = userInfo.find(key);
        return it == userInfo.end() ? nullptr : std::any_cast<T>(&it->second);
    }
};

// Process-wide, synchronous notification centre: post() runs every matching observer before it
// returns, in registration order. Observers may add or remove registrations while being called.
class NotificationCenter {
public:
    using Block = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // Registers block for notifications called name; with a sender, only for that sender. The
    // owner (any address) identifies the registration for removeObserver(). Returns an id.
    quint64 addObserver(const void* owner, const QString& name, const void* sender, Block block);
    void removeObserver(quint64 id);
    // Removes every registration of owner.
    void removeObserver(const void* owner);
    // Removes owner's registrations for name (and, when given, for sender).
    void removeObserver(const void* owner, const QString& name, const void* sender = nullptr);

    // Removes every registration restricted to sender: an object going away calls this, so
    // that a later object at the same address is not taken for it.
    void removeObserversForSender(const void* sender);

    void post(const Notification& notification);
    void post(const QString& name, const void* sender, UserInfo userInfo = {});

    std::size_t observerCount() const { return observers_.size(); }

private:
    struct Observer {
        quint64 id;
        const void* owner;
        QString name;
        const void* sender;
        Block block;
    };
    std::vector<Observer> observers_;
    quint64 nextId_ = 1;
};

}  // namespace foundation

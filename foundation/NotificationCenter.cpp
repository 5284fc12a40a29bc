// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/NotificationCenter.h"

#include <algorithm>

namespace foundation {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

quint64 NotificationCenter::addObserver(const void* owner, const QString& name, const void* sender,
                                        Block block) {
    const quint64 id = nextId_++;
    observers_.push_back(Observer{id, owner, name, sender, std::move(block)});
    return id;
}

void NotificationCenter::removeObserver(quint64 id) {
    std::erase_if(observers_, [id](const Observer& o) { return o.id == id; });
}

void NotificationCenter::removeObserver(const void* owner) {
    std::erase_if(observers_, [owner](const Observer& o) { return o.owner == owner; });
}

void NotificationCenter::removeObserver(const void* owner, const QString& name,
                                        const void* sender) {
    std::erase_if(observers_, [&](const Observer& o) {
        return o.owner == owner && o.name == name && (sender == nullptr || o.sender == sender);
    });
}

void NotificationCenter::removeObserversForSender(const void* sender) {
    if (sender == nullptr)
        return;
    std::erase_if(observers_, [sender](const Observer& o) { return o.sender == sender; });
}

void NotificationCenter::post(const Notification& notification) {
    // Observers may register or unregister while being called: walk a snapshot of the ids that
    // match now, and skip any that were removed in the meantime.
    std::vector<quint64> matching;
    for (const Observer& o : observers_) {
        if (o.name == notification.name &&
            (o.sender == nullptr || o.sender == notification.sender)) {
            matching.push_back(o.id);
        }
    }
    for (quint64 id : matching) {
        auto it = std::find_if(observers_.begin(), observers_.end(),
                               [id](const Observer& o) { return o.id == id; });
        if (it == observers_.end())
            continue;
        Block block = it->block;  // the registration may go away while the block runs
        block(notification);
    }
}

void NotificationCenter::post(const QString& name, const void* sender, UserInfo userInfo) {
    post(Notification{name, sender, std::move(userInfo)});
}

}  // namespace foundation

#include "platform/KCKeychainItem.h"

std::shared_ptr<KCGenericKeychainItem> KCGenericKeychainItem::genericKeychainItemForService(
    const QString&, const QString&) {
    return nullptr;
}

std::shared_ptr<KCGenericKeychainItem> KCGenericKeychainItem::addGenericKeychainItemForService(
    const QString&, const QString&, const QString&) {
    return nullptr;
}

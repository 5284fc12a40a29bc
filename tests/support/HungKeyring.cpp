// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/HungKeyring.h"

#include <QDBusConnection>
#include <QSemaphore>
#include <QThread>

namespace testsupport {

namespace {
const QString kService = QStringLiteral("org.freedesktop.secrets");
const QString kPath = QStringLiteral("/org/freedesktop/secrets");
}  // namespace

// Runs no event loop: the calls that the bus hands to its objects wait for ever.
struct HungKeyring::Thread : QThread {
    QSemaphore release;
    void run() override { release.acquire(); }
};

HungKeyring::HungKeyring(const QString& busAddress)
    : connectionName_(
          QStringLiteral("hung-keyring-%1").arg(reinterpret_cast<quintptr>(this), 0, 16)),
      thread_(std::make_unique<Thread>()),
      silent_(std::make_unique<QObject>()) {
    QDBusConnection bus = QDBusConnection::connectToBus(busAddress, connectionName_);
    registered_ = bus.isConnected() &&
                  bus.registerObject(kPath, silent_.get(), QDBusConnection::ExportAllContents);
    // From here on the calls the bus hands to the object wait in a thread that never takes them.
    thread_->start();
    silent_->moveToThread(thread_.get());
    registered_ = registered_ && bus.registerService(kService);
}

HungKeyring::~HungKeyring() {
    {
        QDBusConnection bus(connectionName_);
        bus.unregisterService(kService);
        bus.unregisterObject(kPath);
    }
    QDBusConnection::disconnectFromBus(connectionName_);
    thread_->release.release();
    thread_->wait();
    silent_.reset();  // its thread is over, and with it the calls it never took
}

}  // namespace testsupport

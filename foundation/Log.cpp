// SPDX-License-Identifier: GPL-3.0-or-later
#include "foundation/Log.h"

#include <syslog.h>

#include <cstdio>
#include <mutex>
#include <vector>

namespace foundation {

namespace {

std::mutex& captureMutex() {
    static std::mutex m;
    return m;
}

std::vector<QStringList*>& captures() {
    static std::vector<QStringList*> list;
    return list;
}

void openSyslogOnce() {
    static std::once_flag once;
    std::call_once(once, [] { openlog("Ferrybox", LOG_PID, LOG_USER); });
}

}  // namespace

void log(const QString& line) {
    const QByteArray utf8 = line.toUtf8();
    openSyslogOnce();
    syslog(LOG_NOTICE, "%s", utf8.constData());
    std::fprintf(stderr, "%s\n", utf8.constData());
    std::fflush(stderr);
    std::lock_guard lock(captureMutex());
    for (QStringList* capture : captures())
        capture->append(line);
}

LogCapture::LogCapture() : lines_(new QStringList) {
    std::lock_guard lock(captureMutex());
    captures().push_back(lines_);
}

LogCapture::~LogCapture() {
    {
        std::lock_guard lock(captureMutex());
        auto& list = captures();
        std::erase(list, lines_);
    }
    delete lines_;
}

QStringList LogCapture::lines() const {
    std::lock_guard lock(captureMutex());
    return *lines_;
}

}  // namespace foundation

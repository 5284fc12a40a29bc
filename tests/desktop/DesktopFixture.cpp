// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/desktop/DesktopFixture.h"

#include <QDir>
#include <QFile>
#include <QImage>

#include "tests/support/StopProcess.h"
#include "tests/support/Wait.h"

namespace desktoptest {

using testsupport::waitUntil;

namespace {

const QString kEmail = QStringLiteral("me@example.org");
const QString kPassword = QStringLiteral("desk top secret");

QString agentBinary() {
    return qEnvironmentVariable("FERRYBOX_BUILD_DIR") + QStringLiteral("/app/ferrybox");
}

void writeFile(const QString& path, const QByteArray& content, QFile::Permissions permissions) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(content);
    file.close();
    file.setPermissions(permissions);
}

}  // namespace

const char* trayName(Tray tray) {
    switch (tray) {
        case Tray::StatusNotifier:
            return "StatusNotifier";
        case Tray::XEmbed:
            return "XEmbed";
        case Tray::None:
            return "None";
    }
    return "?";
}

void DesktopTest::SetUp() {
    ASSERT_TRUE(display_.isRunning());
    ASSERT_TRUE(notifications_.isRegistered());
    ASSERT_TRUE(home_.isValid());
    notes_ = std::make_unique<testsupport::NotesServerProcess>();
    ASSERT_TRUE(notes_->isRunning());
    ASSERT_TRUE(notes_->addUser(kEmail, kPassword));
    account_ = std::make_unique<testsupport::NotesAccount>(*notes_, kEmail, kPassword);
    if (withDownloadNote_) {
        downloadNoteKey_ = account_->create(QStringLiteral("Ferrybox_Downloads\n"));
        ASSERT_FALSE(downloadNoteKey_.empty());
    }

    writeFile(home_.filePath(QStringLiteral("password")), kPassword.toUtf8() + "\n",
              QFile::ReadOwner | QFile::WriteOwner);
    // The desktop's opener: records what it is asked to open.
    QDir().mkpath(home_.filePath(QStringLiteral("bin")));
    writeFile(home_.filePath(QStringLiteral("bin/xdg-open")),
              "#!/bin/sh\nprintf '%s\\n' \"$1\" >>\"$HOME/opened\"\n",
              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QObject::connect(&agent_, &QProcess::readyReadStandardOutput,
                     [this] { agentLog_ += agent_.readAllStandardOutput(); });
    QDir().mkpath(home_.filePath(QStringLiteral("runtime")));
    QFile::setPermissions(home_.filePath(QStringLiteral("runtime")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void DesktopTest::TearDown() {
    if (agentRunning()) {
        agent_.kill();
        agent_.waitForFinished(5000);
    }
    if (HasFailure())
        std::fprintf(stderr, "--- the agent's output:\n%s\n", qPrintable(agentOutput()));
    files_.releaseStalled();
    stopTray();
}

void DesktopTest::startTray(Tray tray) {
    switch (tray) {
        case Tray::StatusNotifier:
            host_ = std::make_unique<testsupport::StatusNotifierHost>(imageFolder());
            ASSERT_TRUE(host_->isRegistered());
            break;
        case Tray::XEmbed: {
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("DISPLAY"), display_.name());
            trayer_.setProcessEnvironment(env);
            trayer_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            trayer_.setStandardOutputFile(QProcess::nullDevice());
            trayer_.start(
                QStringLiteral("trayer"),
                {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--align"),
                 QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("request"),
                 QStringLiteral("--height"), QStringLiteral("24"), QStringLiteral("--transparent"),
                 QStringLiteral("false")});
            ASSERT_TRUE(trayer_.waitForStarted(5000));
            ASSERT_TRUE(waitUntil([this] { return display_.hasTrayManager(); }, 10000));
            break;
        }
        case Tray::None:
            break;
    }
}

void DesktopTest::stopTray() {
    host_.reset();
    testsupport::stopProcess(trayer_);
}

void DesktopTest::serveFile(const std::string& path, qint64 size, std::optional<qint64> heldAfter) {
    if (heldAfter) {
        files_.on("GET", path,
                  files_.stallMidBody(static_cast<std::size_t>(size),
                                      static_cast<std::size_t>(*heldAfter)));
    } else {
        files_.on("GET", path, testsupport::FixtureServer::respond(200, std::string(size, 'f')));
    }
}

QString DesktopTest::fileLink(const std::string& pathAndQuery) const {
    return files_.baseUrl() + QString::fromStdString(pathAndQuery);
}

void DesktopTest::queueLinks(const QStringList& links) {
    ASSERT_TRUE(account_->update(downloadNoteKey_,
                                 QStringLiteral("Ferrybox_Downloads\n") + links.join('\n')));
}

void DesktopTest::writeSettings(const QByteArray& text) {
    QDir().mkpath(home_.filePath(QStringLiteral(".config/Ferrybox")));
    writeFile(home_.filePath(QStringLiteral(".config/Ferrybox/Ferrybox.conf")), text,
              QFile::ReadOwner | QFile::WriteOwner);
}

void DesktopTest::startAgent(const QStringList& arguments, Account account) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display_.name());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("HOME"), home_.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home_.filePath(QStringLiteral(".config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home_.filePath(QStringLiteral(".local/share")));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), home_.filePath(QStringLiteral(".cache")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home_.filePath(QStringLiteral("runtime")));
    env.insert(QStringLiteral("PATH"),
               home_.filePath(QStringLiteral("bin")) + QLatin1Char(':') + env.value("PATH"));
    env.insert(QStringLiteral("FERRYBOX_API_URL"), notes_->apiUrl());
    for (const char* name : {"FERRYBOX_PASSWORD_FILE", "BROWSER", "DEFAULT_BROWSER",
                             "XDG_CURRENT_DESKTOP", "QT_QPA_PLATFORMTHEME", "SESSION_MANAGER"}) {
        env.remove(QString::fromLatin1(name));
    }
    agent_.setProcessEnvironment(env);
    agent_.setProcessChannelMode(QProcess::MergedChannels);
    const QStringList given = {QStringLiteral("--email"), kEmail, QStringLiteral("--password-file"),
                               home_.filePath(QStringLiteral("password"))};
    agent_.start(agentBinary(), (account == Account::Given ? given : QStringList()) + arguments);
    ASSERT_TRUE(agent_.waitForStarted(5000));
}

int DesktopTest::runSecondAgent() {
    QProcess second;
    second.setProcessEnvironment(agent_.processEnvironment());
    second.setProcessChannelMode(QProcess::MergedChannels);
    second.start(agentBinary(), QStringList{});
    // The panel and the notification service of this desktop answer from this process's loop.
    const bool finished = waitUntil([&] { return second.state() == QProcess::NotRunning; }, 10000);
    if (!finished) {
        second.kill();
        second.waitForFinished(2000);
    }
    agentLog_ += "--- the second agent:\n" + second.readAll();
    if (!finished || second.exitStatus() != QProcess::NormalExit)
        return -1;
    return second.exitCode();
}

std::optional<int> DesktopTest::waitForAgentExit(int timeoutMs) {
    if (!waitUntil([this] { return !agentRunning(); }, timeoutMs))
        return std::nullopt;
    return agent_.exitStatus() == QProcess::NormalExit ? agent_.exitCode() : -1;
}

QString DesktopTest::agentOutput() {
    agentLog_ += agent_.readAllStandardOutput();
    return QString::fromLocal8Bit(agentLog_);
}

QString DesktopTest::downloadFolder() const {
    return home_.filePath(QStringLiteral("Downloads/Ferrybox"));
}

QStringList DesktopTest::partialFiles() const {
    return QDir(downloadFolder())
        .entryList({QStringLiteral(".*.part")}, QDir::Files | QDir::Hidden);
}

QStringList DesktopTest::openedLinks() const {
    QFile file(home_.filePath(QStringLiteral("opened")));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
}

std::optional<testsupport::VirtualDisplay::Window> DesktopTest::preferencesWindow() {
    const auto windows = display_.viewableWindowsTitled(QStringLiteral("Ferrybox Preferences"));
    if (windows.empty())
        return std::nullopt;
    return windows.front();
}

bool DesktopTest::answerAlert(const QString& title, bool withDefaultButton) {
    std::vector<testsupport::VirtualDisplay::Window> alerts;
    if (!waitUntil(
            [&] {
                alerts = display_.viewableWindowsTitled(title);
                return !alerts.empty();
            },
            10000)) {
        return false;
    }
    const QString window = QString::number(alerts.front());
    return display_.xdotool({QStringLiteral("windowfocus"), QStringLiteral("--sync"), window}) &&
           display_.xdotool({QStringLiteral("key"), withDefaultButton ? QStringLiteral("Return")
                                                                      : QStringLiteral("Escape")});
}

bool DesktopTest::waitForMenu(const std::function<bool(const QStringList&)>& pred, int timeoutMs) {
    QStringList last;
    const bool met = waitUntil(
        [&] {
            last = host_ ? host_->menuLines() : QStringList();
            return pred(last);
        },
        timeoutMs);
    if (!met)
        ADD_FAILURE() << "the menu read: " << last.join(" | ").toStdString();
    return met;
}

bool DesktopTest::menuHas(const QString& line) {
    return waitForMenu([&](const QStringList& lines) { return lines.contains(line); });
}

int DesktopTest::notificationsNamed(const QString& name) const {
    int count = 0;
    for (const auto& n : notifications_.notifications())
        count += n.hints.value("x-ferrybox-notification-name").toString() == name ? 1 : 0;
    return count;
}

QString DesktopTest::dockedIconName() {
    const auto icon = display_.dockedTrayIcon();
    if (!icon)
        return QString();
    const QImage shown = display_.grab(display_.geometry(*icon));
    // The tray draws the 16-pixel image in the middle of its place; its opaque pixels tell.
    const QPoint origin((shown.width() - 16) / 2, (shown.height() - 16) / 2);
    const QStringList names = QDir(imageFolder()).entryList({QStringLiteral("*.png")});
    for (const QString& name : names) {
        const QImage image(QDir(imageFolder()).filePath(name));
        bool same = true;
        for (int y = 0; y < 16 && same; ++y) {
            for (int x = 0; x < 16 && same; ++x) {
                const QRgb pixel = image.pixel(x, y);
                same = qAlpha(pixel) != 255 ||
                       (shown.pixel(origin + QPoint(x, y)) & 0xffffff) == (pixel & 0xffffff);
            }
        }
        if (same)
            return name;
    }
    return QStringLiteral("?");
}

bool DesktopTest::openDockedDownloadsSubmenu() {
    const auto icon = display_.dockedTrayIcon();
    // At the icon's lower left corner: the menu, which opens there, leaves the icon in sight.
    const QRect place = icon ? display_.geometry(*icon) : QRect();
    if (!icon ||
        !display_.xdotool({QStringLiteral("mousemove"), QString::number(place.left() + 1),
                           QString::number(place.bottom()), QStringLiteral("click"),
                           QStringLiteral("3")}) ||
        !waitUntil([this] { return display_.popupMenus().size() == 1; }, 5000)) {
        return false;
    }
    // Up from the top wraps to Quit; then Preferences..., About Ferrybox, the downloads.
    return display_.xdotool({QStringLiteral("key"), QStringLiteral("Up"), QStringLiteral("Up"),
                             QStringLiteral("Up"), QStringLiteral("Up"),
                             QStringLiteral("Right")}) &&
           waitUntil([this] { return display_.popupMenus().size() == 2; }, 5000);
}

QString DesktopTest::imageFolder() const {
    return QStringLiteral(FERRYBOX_SOURCE_DIR "/ui/images");
}

}  // namespace desktoptest

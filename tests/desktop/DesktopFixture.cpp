#include "tests/desktop/DesktopFixture.h"

#include <QDir>
#include <QFile>

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
    downloadNoteKey_ = account_->create(QStringLiteral("Ferrybox_Downloads\n"));
    ASSERT_FALSE(downloadNoteKey_.empty());

    writeFile(home_.filePath(QStringLiteral("password")), kPassword.toUtf8() + "\n",
              QFile::ReadOwner | QFile::WriteOwner);
    // The desktop's opener: records what it is asked to open.
    QDir().mkpath(home_.filePath(QStringLiteral("bin")));
    writeFile(home_.filePath(QStringLiteral("bin/xdg-open")),
              "#!/bin/sh\nprintf '%s\\n' \"$1\" >>\"$HOME/opened\"\n",
              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
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

void DesktopTest::startAgent(const QStringList& arguments) {
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
    QObject::connect(&agent_, &QProcess::readyReadStandardOutput,
                     [this] { agentLog_ += agent_.readAllStandardOutput(); });
    agent_.start(agentBinary(),
                 QStringList{QStringLiteral("--email"), kEmail, QStringLiteral("--password-file"),
                             home_.filePath(QStringLiteral("password"))} +
                     arguments);
    ASSERT_TRUE(agent_.waitForStarted(5000));
}

int DesktopTest::runSecondAgent() {
    QProcess second;
    second.setProcessEnvironment(agent_.processEnvironment());
    second.setProcessChannelMode(QProcess::MergedChannels);
    second.start(agentBinary(), QStringList{});
    if (!second.waitForFinished(10000)) {
        second.kill();
        second.waitForFinished(2000);
        return -1;
    }
    agentLog_ += "--- the second agent:\n" + second.readAll();
    return second.exitStatus() == QProcess::NormalExit ? second.exitCode() : -1;
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

bool DesktopTest::answerAlert(bool withDefaultButton) {
    std::vector<testsupport::VirtualDisplay::Window> alerts;
    if (!waitUntil(
            [&] {
                alerts = display_.viewableWindowsTitled(QStringLiteral("Ferrybox"));
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

int DesktopTest::notificationsTitled(const QString& summary) const {
    int count = 0;
    for (const auto& n : notifications_.notifications())
        count += n.summary == summary ? 1 : 0;
    return count;
}

QString DesktopTest::imageFolder() const {
    return QStringLiteral(FERRYBOX_SOURCE_DIR "/ui/images");
}

}  // namespace desktoptest

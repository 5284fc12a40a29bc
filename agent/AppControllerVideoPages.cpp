// SPDX-License-Identifier: GPL-3.0-or-later
// Video pages: which yt-dlp turns a shared page into its video, and which of the page's media it
// fetches. The choice is read at start-up and applied again at each change in the window: the
// program is asked for its version, the window says what answered, and the download facility is
// given the tool only then, so that without a working yt-dlp pages are saved as they always were.
#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QStandardPaths>
#include <QThreadPool>
#include <vector>

#include "agent/AppController.h"
#include "foundation/BoundedWait.h"
#include "foundation/OpenPanel.h"
#include "foundation/Paths.h"
#include "foundation/URLDownload.h"
#include "foundation/UserDefaults.h"
#include "foundation/VideoPageTool.h"

namespace {

using Format = foundation::VideoPageTool::Format;

const QString kToolKey = QStringLiteral("videoPageTool");
const QString kFormatKey = QStringLiteral("videoPageFormat");
const QString kDefaultProgram = QStringLiteral("yt-dlp");

// The version check gives up after five seconds and waits one more for the program to go.
constexpr int kStartupLookupLimitMs = 7000;

struct FormatChoice {
    QString key;  // as stored
    QString title;
    std::optional<Format> format;  // none: off
};

// The first is the default, also for a stored value that none of them has.
const std::vector<FormatChoice>& formatChoices() {
    static const std::vector<FormatChoice> choices = {
        {QStringLiteral("best-1080p"), QStringLiteral("Best up to 1080p"), Format::BestUpTo1080p},
        {QStringLiteral("best"), QStringLiteral("Best"), Format::Best},
        {QStringLiteral("audio"), QStringLiteral("Audio only"), Format::AudioOnly},
        {QStringLiteral("off"), QStringLiteral("Off"), std::nullopt},
    };
    return choices;
}

const FormatChoice& choiceAt(int index) {
    const auto& choices = formatChoices();
    return index >= 0 && index < int(choices.size()) ? choices[size_t(index)] : choices.front();
}

foundation::UserDefaults& defaults() {
    return foundation::UserDefaults::standardUserDefaults();
}

void store(const QVariant& value, const QString& key) {
    defaults().setObject(value, key);
    defaults().synchronize();
}

// The field's text as a program to run: empty is the yt-dlp on PATH, "~" the home folder.
QString programFor(const QString& fieldText) {
    return fieldText.isEmpty() ? kDefaultProgram : foundation::expandingTildeInPath(fieldText);
}

QString foundText(const QString& version) {
    return QStringLiteral("yt-dlp %1 found").arg(version);
}

// Sites change their pages faster than a distribution updates its yt-dlp, so the newer one is
// offered too.
const QString kNotFoundText = QStringLiteral(
    "No yt-dlp found. Install Debian's package (sudo apt install yt-dlp), or a newer yt-dlp "
    "from its project's releases: sites change faster than distributions.");
const QString kLookingText = QStringLiteral("Looking for yt-dlp...");
const QString kOffText = QStringLiteral("Off: a page with a video is saved as the page.");

}  // namespace

// Missing settings are written as their defaults; a stored format that is none of the choices
// reads as the default and stays as it was written. The program is looked for before anything is
// downloaded, so that even the first check of a headless run hands its video pages over.
void AppController::readVideoPageSettings() {
    const QVariant tool = defaults().objectForKey(kToolKey);
    if (!tool.isValid())
        store(QString(QLatin1String("")), kToolKey);
    videoPageToolField_->setText(tool.toString().trimmed());

    const QString format = defaults().stringForKey(kFormatKey);
    if (format.isNull())
        store(formatChoices().front().key, kFormatKey);
    videoPageFormatMenu_->clear();
    int chosen = 0;
    for (const FormatChoice& choice : formatChoices()) {
        if (choice.key == format)
            chosen = videoPageFormatMenu_->count();
        videoPageFormatMenu_->addItem(choice.title, choice.key);
    }
    videoPageFormatMenu_->setCurrentIndex(chosen);

    findVideoPageTool(true);
}

void AppController::changeVideoPageTool(QObject*) {
    const QString path = videoPageToolField_->text().trimmed();
    videoPageToolField_->setText(path);
    store(path, kToolKey);
    store(choiceAt(videoPageFormatMenu_->currentIndex()).key, kFormatKey);
    findVideoPageTool(false);
}

// The dialog opens at the program in use when there is one.
void AppController::chooseVideoPageTool(QObject* sender) {
    QString start = programFor(videoPageToolField_->text().trimmed());
    if (!start.contains(QLatin1Char('/')))
        start = QStandardPaths::findExecutable(start);
    if (start.isEmpty())
        start = QDir::homePath();
    const QString chosen = foundation::OpenPanel::chooseProgram(start);
    if (chosen.isNull())
        return;
    videoPageToolField_->setText(chosen);
    changeVideoPageTool(sender);
}

// At start-up the answer is waited for (the program answers in a fraction of a second); a change
// in the window is looked at on another thread, and the tool in force stays until it answers.
void AppController::findVideoPageTool(bool waitForAnswer) {
    const quint64 lookup = ++videoPageLookup_;
    const FormatChoice& choice = choiceAt(videoPageFormatMenu_->currentIndex());
    if (!choice.format) {
        // Nothing is run: the person may have turned it off because the program misbehaves.
        useVideoPageTool(lookup, std::nullopt, kOffText);
        return;
    }
    foundation::VideoPageTool tool;
    tool.program = programFor(videoPageToolField_->text().trimmed());
    tool.format = *choice.format;
    const auto answer = [this, lookup, tool](const std::optional<QString>& version) {
        if (version)
            useVideoPageTool(lookup, tool, foundText(*version));
        else
            useVideoPageTool(lookup, std::nullopt, kNotFoundText);
    };

    if (waitForAnswer) {
        auto version = std::make_shared<std::optional<QString>>();
        const bool answered =
            foundation::runWithin(kStartupLookupLimitMs, [version, program = tool.program] {
                *version = foundation::videoPageToolVersion(program);
            });
        answer(answered ? *version : std::nullopt);
        return;
    }

    videoPageToolLabel_->setText(kLookingText);
    QThreadPool::globalInstance()->start(
        [answer, program = tool.program, alive = std::weak_ptr<int>(videoPageLookupToken_)] {
            const std::optional<QString> version = foundation::videoPageToolVersion(program);
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [answer, alive, version] {
                    if (!alive.expired())
                        answer(version);
                },
                Qt::QueuedConnection);
        });
}

void AppController::useVideoPageTool(quint64 lookup,
                                     const std::optional<foundation::VideoPageTool>& tool,
                                     const QString& labelText) {
    if (lookup != videoPageLookup_)
        return;  // a later change is being looked at
    videoPageToolLabel_->setText(labelText);
    foundation::URLDownload::setVideoPageTool(tool);
}

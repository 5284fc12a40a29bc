// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "agent/DownloadReporter.h"
#include "agent/FXDownload.h"
#include "agent/StatusItem.h"
#include "foundation/NotificationCenter.h"
#include "foundation/URLDownload.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QMenu;
class QProgressBar;
class QPushButton;
class QTimer;
class QToolBar;
class QWidget;
class LWSimplenote;
class LWSimplenoteEventStream;

namespace foundation {
class Timer;
}

// The agent's single controller: it owns the agent's state and every outlet of the preferences
// window, and receives the events of every file transfer. Its operations are spread over one
// source file per concern: start-up, turning on and off, the failure family, the check cycle and
// the downloads here in agent/; the status menu, the preferences window and the notifications in
// ui/.
class AppController : public QObject, public foundation::URLDownloadDelegate {
public:
    using DownloadList = std::vector<std::shared_ptr<FXDownload>>;

    enum TerminateReply { TerminateNow, TerminateCancel };

    AppController();
    ~AppController() override;

    // --- start-up and lifecycle
    void awakeFromNib();
    void applicationDidFinishLaunching();
    void turnFerryboxOn(QObject* sender);
    void loginSucceeded(const foundation::Notification& notification);
    void loginFailed(const foundation::Notification& notification);
    void turnFerryboxOff(QObject* sender);
    void turnOff();
    TerminateReply applicationShouldTerminate();

    // --- the failure family: notify, show the label text, turn off
    void turnOffAfterPullFailed(const foundation::Notification& notification);
    void turnFerryboxOffAfterPullFailed(const foundation::Notification& notification);
    void turnOffAfterMultipleNotesFound(const foundation::Notification& notification);
    void turnOffAfterLogPullFailed(const foundation::Notification& notification);
    void turnOffAfterLogClearFailed(const foundation::Notification& notification);
    void turnOffAfterLogDeleteFailed(const foundation::Notification& notification);
    void turnOffAfterLogAppendFailed(const foundation::Notification& notification);

    // --- the check cycle
    // Starts a check, or, while one is under way, has one more run once it is over: however
    // often a check is asked for meanwhile (the timer, a change, "Check For Downloads Now", a
    // new interval), one more runs, so that no link is read by two checks at once.
    void searchForNote();
    // From a check's search until the service has its note back, or it failed or was stopped.
    bool checkUnderWay() const { return checkUnderWay_; }
    void downloadFiles(const foundation::Notification& notification);
    int downloadFilesFromNote(const std::shared_ptr<LWSimplenote>& note);
    // A line of the download note that a check downloads: not empty, not the header, not a
    // "#" comment.
    static bool isLinkLine(const QString& line, const QString& searchTerm);
    // --- change events: a link saved into the download note starts a check at once
    // Whether a running agent listens for the service's change events. Off until the
    // application turns it on (the agent's executable does, except for a single check).
    void setListensForChanges(bool listens) { listensForChanges_ = listens; }
    void listenForChanges();
    void stopListeningForChanges();
    // A note of the account changed: when it is the download note and holds a link, the check
    // timer is fired by hand. Once the download note's key is known, a change to another note
    // reads nothing; a note changing faster than it can be read is read once more afterwards.
    void noteDidChange(const QString& key);
    // Null while the agent does not listen.
    LWSimplenoteEventStream* changeStream() const { return changeStream_.get(); }

    // --- the log note
    void toggleLogNote(QObject* sender);
    void clearLogNote(QObject* sender);
    void wipeLogNote(const foundation::Notification& notification);
    void deleteLogNote(const foundation::Notification& notification);
    void updateLogNoteWith(const QStringList& lines);
    void appendToLogNoteAndSync(const foundation::Notification& notification);

    // --- the downloads
    void downloadDidBegin(foundation::URLDownload* download) override;
    void downloadDidReceiveResponse(foundation::URLDownload* download,
                                    const foundation::HTTPURLResponse& response) override;
    void downloadDecideDestinationWithSuggestedFilename(foundation::URLDownload* download,
                                                        const QString& filename) override;
    void downloadDidReceiveDataOfLength(foundation::URLDownload* download, quint64 length) override;
    void downloadDidFinish(foundation::URLDownload* download) override;
    void downloadDidFailWithError(foundation::URLDownload* download,
                                  const foundation::Error& error) override;
    void downloadWaitDidChange(foundation::URLDownload* download) override;
    // Goes on with the transfers an earlier agent left unfinished (journaled), as if a check had
    // just begun them; done once at start-up, before the first check.
    void resumeUnfinishedDownloads();

    // --- failed links back into the download note, as "# failed: REASON: LINK"
    void togglePutFailedLinksBack(QObject* sender);
    void putFailedLinkBack(const FXDownload& download, const foundation::Error& error);

    // --- video pages: which yt-dlp, and which of a page's media it fetches
    // The program's path was edited, or a format chosen: stored, and in force once the program
    // answers (a later change wins over an earlier answer).
    void changeVideoPageTool(QObject* sender);
    // The Browse button: a program chosen in the file dialog, then as changeVideoPageTool.
    void chooseVideoPageTool(QObject* sender);

    // --- status menu, preferences window, notifications
    void updateMenu();
    void openDownloadsFolder(QObject* sender);
    void goToDownloadNote();
    void sendGrowlNotification(const QString& kind, const QString& detail);
    void showPreferences(QObject* sender);
    // The preferences window's own actions.
    void controlTextDidEndEditing(QObject* sender);
    void toggleRememberInKeychain(QObject* sender);
    void changeDownloadDirectory(QObject* sender);
    void toggleGrowl(QObject* sender);
    void showIntervalHelp(QObject* sender);
    // What the application object itself answers: the about panel and quitting (through the
    // quit guard). The menu's "About Ferrybox" and "Quit" call these.
    void setApplicationActions(std::function<void()> orderFrontStandardAboutPanel,
                               std::function<void()> terminate);
    // Whether a desktop notification service can be reached.
    bool notificationServiceAvailable() const;

    // Sends an action by name, as a control or menu item does ("turnFerryboxOn:"). Answers false
    // for an action the controller does not know.
    bool tryToPerform(const QString& action, QObject* sender);
    // The action the start button sends now.
    QString startButtonAction() const { return startButtonAction_; }

    // Account text that --email / --password-file supply, winning over the stored address and
    // the keychain during start-up. A given address is the one the keychain is asked about; a
    // given password leaves the keychain alone.
    void setAccountOverride(const QString& email, const QString& password);
    // How many failure-family operations ran since start-up.
    int failuresReported() const { return failuresReported_; }
    // Told of every transfer's begin, progress and end, besides the menu and the notifications
    // (the headless run's lines on standard error). Not owned; null for none.
    void setDownloadReporter(DownloadReporter* reporter) { downloadReporter_ = reporter; }
    // Told whenever the error label gets a text, so that the window shows the pane holding it.
    void setErrorShownHandler(std::function<void()> handler) { errorShown_ = std::move(handler); }

    // --- outlets
    QWidget* prefsWindow() const { return prefsWindow_; }
    void setPrefsWindow(QWidget* w) { prefsWindow_ = w; }
    QLineEdit* emailField() const { return emailField_; }
    void setEmailField(QLineEdit* w) { emailField_ = w; }
    QLineEdit* passwordField() const { return passwordField_; }
    void setPasswordField(QLineEdit* w) { passwordField_ = w; }
    QCheckBox* rememberInKeychainButton() const { return rememberInKeychainButton_; }
    void setRememberInKeychainButton(QCheckBox* w) { rememberInKeychainButton_ = w; }
    QCheckBox* keepLogButton() const { return keepLogButton_; }
    void setKeepLogButton(QCheckBox* w) { keepLogButton_ = w; }
    QPushButton* clearLogButton() const { return clearLogButton_; }
    void setClearLogButton(QPushButton* w) { clearLogButton_ = w; }
    QPushButton* startButton() const { return startButton_; }
    void setStartButton(QPushButton* w) { startButton_ = w; }
    QLabel* errorLabel() const { return errorLabel_; }
    void setErrorLabel(QLabel* w) { errorLabel_ = w; }
    QLabel* downloadLabel() const { return downloadLabel_; }
    void setDownloadLabel(QLabel* w) { downloadLabel_ = w; }
    QCheckBox* useGrowlButton() const { return useGrowlButton_; }
    void setUseGrowlButton(QCheckBox* w) { useGrowlButton_ = w; }
    QLineEdit* intervalField() const { return intervalField_; }
    void setIntervalField(QLineEdit* w) { intervalField_ = w; }
    QProgressBar* loginSpinner() const { return loginSpinner_; }
    void setLoginSpinner(QProgressBar* w) { loginSpinner_ = w; }
    QToolBar* prefsToolbar() const { return prefsToolbar_; }
    void setPrefsToolbar(QToolBar* w) { prefsToolbar_ = w; }
    QMenu* appMenu() const { return appMenu_; }
    void setAppMenu(QMenu* m) { appMenu_ = m; }
    QCheckBox* putFailedLinksBackButton() const { return putFailedLinksBackButton_; }
    void setPutFailedLinksBackButton(QCheckBox* w) { putFailedLinksBackButton_ = w; }
    QCheckBox* openAtLoginButton() const { return openAtLoginButton_; }
    void setOpenAtLoginButton(QCheckBox* w) { openAtLoginButton_ = w; }
    // Shows the download folder; set at start-up and by each choice of a folder.
    QLabel* directoryField() const { return directoryField_; }
    void setDirectoryField(QLabel* w) { directoryField_ = w; }
    // Says, under the remember checkbox, when the keyring could not keep the password.
    QLabel* keyringLabel() const { return keyringLabel_; }
    void setKeyringLabel(QLabel* w) { keyringLabel_ = w; }
    // The path of yt-dlp (empty: the one on PATH), the line saying which version answered, and
    // the format chosen (which also turns video pages off).
    QLineEdit* videoPageToolField() const { return videoPageToolField_; }
    void setVideoPageToolField(QLineEdit* w) { videoPageToolField_ = w; }
    QLabel* videoPageToolLabel() const { return videoPageToolLabel_; }
    void setVideoPageToolLabel(QLabel* w) { videoPageToolLabel_ = w; }
    QComboBox* videoPageFormatMenu() const { return videoPageFormatMenu_; }
    void setVideoPageFormatMenu(QComboBox* w) { videoPageFormatMenu_ = w; }

    // --- state
    const DownloadList& downloadList() const { return downloadList_; }
    void setDownloadList(DownloadList list) { downloadList_ = std::move(list); }
    const QVariant& interval() const { return interval_; }
    void setInterval(const QVariant& interval) { interval_ = interval; }
    const std::shared_ptr<foundation::Timer>& timer() const { return timer_; }
    void setTimer(std::shared_ptr<foundation::Timer> timer) { timer_ = std::move(timer); }
    const QString& downloadDirectory() const { return downloadDirectory_; }
    // Also shown in the preferences window.
    void setDownloadDirectory(const QString& d);
    const std::shared_ptr<StatusItem>& statusItem() const { return statusItem_; }
    void setStatusItem(std::shared_ptr<StatusItem> item) { statusItem_ = std::move(item); }
    bool appRunning() const { return appRunning_; }
    void setAppRunning(bool running) { appRunning_ = running; }
    bool growlInstalled() const { return growlInstalled_; }
    void setGrowlInstalled(bool installed) { growlInstalled_ = installed; }
    const QStringList& URLLines() const { return URLLines_; }
    void setURLLines(const QStringList& lines) { URLLines_ = lines; }
    QMenu* menu() const { return menu_.get(); }
    void setMenu(std::shared_ptr<QMenu> menu) { menu_ = std::move(menu); }
    const QString& noteID() const { return noteID_; }
    void setNoteID(const QString& id) { noteID_ = id; }
    const QString& searchTerm() const { return searchTerm_; }
    void setSearchTerm(const QString& term) { searchTerm_ = term; }

private:
    QString readAccountSettings();
    void readCheckSettings();
    void readNotificationSettings();
    void readLogSettings();
    void readFailedLinksSetting();
    void readVideoPageSettings();
    void findVideoPageTool(bool waitForAnswer);
    void useVideoPageTool(quint64 lookup, const std::optional<foundation::VideoPageTool>& tool,
                          const QString& labelText);
    void sendPutBacks();
    void tickWhileWaiting();
    void readDownloadDirectorySetting();
    void readOpenAtLoginSetting();
    void showPreferencesWindow();
    void armCheckTimer();
    void endCheck(quint64 check);
    void stopChecks();
    void storeCheckedNote(const std::shared_ptr<LWSimplenote>& note);
    void lookAgainAfterCheck();
    void lookForLinksInNote(const QString& key);
    void setStartButtonAction(const QString& title, const QString& action);
    void startSpinner(bool on);
    void showError(const QString& text);
    void rememberPassword();
    void setKeyringNotice(const QString& text);
    void turnOffAfterFailure(const QString& detail, const QString& labelText);
    void removeFromDownloadList(const FXDownload* download);
    void searchForLogNote(foundation::NotificationCenter::Block onSuccess,
                          foundation::NotificationCenter::Block onFailure);

    QWidget* prefsWindow_ = nullptr;
    QLineEdit* emailField_ = nullptr;
    QLineEdit* passwordField_ = nullptr;
    QCheckBox* rememberInKeychainButton_ = nullptr;
    QCheckBox* keepLogButton_ = nullptr;
    QPushButton* clearLogButton_ = nullptr;
    QPushButton* startButton_ = nullptr;
    QLabel* errorLabel_ = nullptr;
    QLabel* downloadLabel_ = nullptr;
    QCheckBox* useGrowlButton_ = nullptr;
    QLineEdit* intervalField_ = nullptr;
    QProgressBar* loginSpinner_ = nullptr;
    QToolBar* prefsToolbar_ = nullptr;
    QMenu* appMenu_ = nullptr;
    QCheckBox* openAtLoginButton_ = nullptr;
    QCheckBox* putFailedLinksBackButton_ = nullptr;
    QLabel* directoryField_ = nullptr;
    QLabel* keyringLabel_ = nullptr;
    QLineEdit* videoPageToolField_ = nullptr;
    QLabel* videoPageToolLabel_ = nullptr;
    QComboBox* videoPageFormatMenu_ = nullptr;
    DownloadList downloadList_;
    QVariant interval_;
    std::shared_ptr<foundation::Timer> timer_;
    QString downloadDirectory_;
    std::shared_ptr<StatusItem> statusItem_;
    bool appRunning_ = false;
    bool growlInstalled_ = false;
    QStringList URLLines_;
    std::shared_ptr<QMenu> menu_;
    QString noteID_;
    QString searchTerm_;

    QString startButtonAction_ = QStringLiteral("turnFerryboxOn:");
    std::optional<QString> emailOverride_;
    std::optional<QString> passwordOverride_;
    int failuresReported_ = 0;
    DownloadReporter* downloadReporter_ = nullptr;
    std::function<void()> orderFrontStandardAboutPanel_;
    std::function<void()> terminate_;
    std::function<void()> errorShown_;

    // The check under way (AppControllerCheckCycle.cpp). Checks are numbered, so that the late
    // answer of a check that was stopped ends no later one.
    bool checkUnderWay_ = false;
    bool checkAskedAgain_ = false;
    bool checkStoring_ = false;  // its note's push is under way
    quint64 checkNumber_ = 0;

    // Change events (AppControllerEvents.cpp).
    bool listensForChanges_ = false;
    std::shared_ptr<LWSimplenoteEventStream> changeStream_;
    // Counts the times listening stopped: a read started before is not followed after.
    quint64 listeningNumber_ = 0;
    // Notes being read for links, each with whether it changed again meanwhile.
    QHash<QString, bool> noteReads_;
    // Notes that changed while a check was under way, looked at again once it is over.
    QSet<QString> changedDuringCheck_;
    // The download note's key, as the last check found it; forgotten at turning off and at
    // each login.
    QString downloadNoteKey_;

    // Failed links whose line could not be added to the note yet (AppControllerFailedLinks.cpp);
    // tried again after each check.
    QStringList putBacksPending_;
    // The links of the transfers this start went on with, until the first check.
    QSet<QString> resumedLinks_;
    bool putBacksSending_ = false;
    // Counts down the menu's "retrying in N s" while a transfer waits.
    QTimer* waitTicker_ = nullptr;

    // Looking for yt-dlp (AppControllerVideoPages.cpp): each look is numbered, so that only the
    // latest one's answer is used; an answer that comes after the controller is gone finds the
    // token expired.
    quint64 videoPageLookup_ = 0;
    std::shared_ptr<int> videoPageLookupToken_ = std::make_shared<int>(0);
};

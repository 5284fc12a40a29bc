#pragma once

#include <QString>
#include <QUrl>
#include <memory>

// One file transfer started from a link of the download note. For now only the record's fields
// exist; the transfer itself comes with the download manager.
class FXDownload : public std::enable_shared_from_this<FXDownload> {
public:
    explicit FXDownload(const QUrl& url) : url_(url) {}
    virtual ~FXDownload() = default;

    qint64 done() const { return done_; }
    void setDone(qint64 done) { done_ = done; }
    // 1 until the response announces a length, so an unanswered record never has size 0.
    qint64 size() const { return size_; }
    void setSize(qint64 size) { size_ = size; }
    const QString& title() const { return title_; }
    void setTitle(const QString& title) { title_ = title; }
    const QUrl& url() const { return url_; }

    // Stops the transfer and deletes the partly written file; no callback follows.
    virtual void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }

private:
    QUrl url_;
    qint64 done_ = 0;
    qint64 size_ = 1;
    QString title_;
    bool cancelled_ = false;
};

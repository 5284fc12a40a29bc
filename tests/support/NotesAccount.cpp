// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/NotesAccount.h"

#include <httplib.h>

#include "Classes/TWJSON/TWJSON.h"
#include "tests/support/NotesServerProcess.h"

namespace testsupport {

namespace {

std::string base64(const QString& text) {
    return text.toUtf8().toBase64().toStdString();
}

}  // namespace

NotesAccount::NotesAccount(NotesServerProcess& service, const QString& email,
                           const QString& password)
    : client_(std::make_unique<httplib::Client>("127.0.0.1", service.port())),
      email_(email.toStdString()) {
    auto res = client_->Post("/api/login", base64("email=" + email + "&password=" + password),
                             "application/x-www-form-urlencoded");
    token_ = res ? res->body : std::string();
}

NotesAccount::~NotesAccount() = default;

std::string NotesAccount::query(const std::string& key) const {
    return "?auth=" + token_ + "&email=" + email_ + (key.empty() ? "" : "&key=" + key);
}

std::string NotesAccount::create(const QString& text) {
    auto res = client_->Post(("/api/note" + query()).c_str(), base64(text),
                             "application/x-www-form-urlencoded");
    return res && res->status == 200 ? res->body : std::string();
}

bool NotesAccount::update(const std::string& key, const QString& text) {
    auto res = client_->Post(("/api/note" + query(key)).c_str(), base64(text),
                             "application/x-www-form-urlencoded");
    return res && res->status == 200;
}

QString NotesAccount::text(const std::string& key) {
    auto res = client_->Get(("/api/note" + query(key)).c_str());
    return res && res->status == 200 ? QString::fromStdString(res->body) : QString();
}

QStringList NotesAccount::find(const QString& words) {
    auto res = client_->Get(
        ("/api/search" + query() + "&results=100&query=" + words.toStdString()).c_str());
    QStringList texts;
    const auto answer = JSONValue(res ? QString::fromStdString(res->body) : QString());
    const auto response = answer ? answer->valueForKey("Response") : std::nullopt;
    const auto results = response ? response->valueForKey("Results") : std::nullopt;
    for (const TWJsonValue& result : results.value_or(TWJsonValue::array()).elements())
        texts << result.valueForKey("content")->stringValue();
    return texts;
}

}  // namespace testsupport

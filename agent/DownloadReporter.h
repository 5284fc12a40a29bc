// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "foundation/Error.h"

class FXDownload;

// Someone besides the menu and the notifications who follows the transfers: each call comes
// after the controller has handled the event.
class DownloadReporter {
public:
    virtual ~DownloadReporter() = default;
    virtual void downloadBegan(const FXDownload& download) = 0;
    virtual void downloadProgressed(const FXDownload& download) = 0;
    virtual void downloadFinished(const FXDownload& download) = 0;
    virtual void downloadFailed(const FXDownload& download, const foundation::Error& error) = 0;
    // The transfer began or ended a wait between two attempts (FXDownload::waitText).
    virtual void downloadWaitChanged(const FXDownload&) {}
};

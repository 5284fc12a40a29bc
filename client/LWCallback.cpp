// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/LWCallback.h"

#include "client/LWSNObject.h"

void LWCallback::invokeSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                           const QByteArray& data) const {
    std::shared_ptr<LWSNObject> target = target_.lock();
    if (target && success_)
        success_(*target, response, data);
}

void LWCallback::invokeFailure(const foundation::Error& error) const {
    std::shared_ptr<LWSNObject> target = target_.lock();
    if (target && failure_)
        failure_(*target, error);
}

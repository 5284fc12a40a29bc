// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <functional>
#include <memory>

#include "foundation/Error.h"
#include "foundation/URLConnection.h"

class LWSNObject;

// For one action: the object to call back and the operations to call on its success and its
// failure. The target is not owned; an operation that is not set is one the target does not
// answer to.
class LWCallback {
public:
    using Success =
        std::function<void(LWSNObject&, const foundation::HTTPURLResponse&, const QByteArray&)>;
    using Failure = std::function<void(LWSNObject&, const foundation::Error&)>;

    LWCallback() = default;
    LWCallback(std::weak_ptr<LWSNObject> target, Success success, Failure failure)
        : target_(std::move(target)), success_(std::move(success)), failure_(std::move(failure)) {}

    // A callback onto two member functions of T.
    template <class T>
    static std::shared_ptr<LWCallback> make(const std::shared_ptr<T>& target,
                                            void (T::*success)(const foundation::HTTPURLResponse&,
                                                               const QByteArray&),
                                            void (T::*failure)(const foundation::Error&)) {
        return std::make_shared<LWCallback>(
            target,
            [success](LWSNObject& o, const foundation::HTTPURLResponse& r, const QByteArray& d) {
                (static_cast<T&>(o).*success)(r, d);
            },
            [failure](LWSNObject& o, const foundation::Error& e) {
                (static_cast<T&>(o).*failure)(e);
            });
    }

    std::weak_ptr<LWSNObject> target() const { return target_; }
    void setTarget(std::weak_ptr<LWSNObject> target) { target_ = std::move(target); }
    const Success& success() const { return success_; }
    void setSuccess(Success success) { success_ = std::move(success); }
    const Failure& failure() const { return failure_; }
    void setFailure(Failure failure) { failure_ = std::move(failure); }

    void invokeSuccessWithResponse(const foundation::HTTPURLResponse& response,
                                   const QByteArray& data) const;
    void invokeFailure(const foundation::Error& error) const;

private:
    std::weak_ptr<LWSNObject> target_;
    Success success_;
    Failure failure_;
};

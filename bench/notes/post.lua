-- SPDX-License-Identifier: GPL-3.0-or-later
-- wrk script: every request rewrites one note (the body is the base64 of its new text).
wrk.method = "POST"
wrk.body = "RmVycnlib3hfRG93bmxvYWRzCmh0dHBzOi8vZXhhbXBsZS5vcmcvZmlsZS56aXAK"
wrk.headers["Content-Type"] = "application/x-www-form-urlencoded"

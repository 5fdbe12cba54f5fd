/// The browser view under /ui/: its page and assets (compiled in), the login form that turns
/// the admin token into a session cookie, and the logout.
///
///   GET  /ui/, /ui/index.html       the page; the login form instead (200) when the service
///                                   has an admin token and the request no live session
///   GET  /ui/login                  the login form
///   GET  /ui/<file>                 a script, style sheet or vendor/hls.min.js
///   POST /ui/login                  form field "token": 303 to /ui/ with the session cookie,
///                                   or 401 and the login form again for a wrong token
///   POST /ui/logout                 ends the session, 303 to /ui/
#ifndef VEXO_CLOUD_UI_ROUTES_H
#define VEXO_CLOUD_UI_ROUTES_H

#include <string>

#include "cloud_service.h"
#include "ui_sessions.h"

namespace vexo_cloud {

constexpr char kUiPrefix[] = "/ui/";

/// True for "/ui" and every path under kUiPrefix.
bool is_ui_path(const std::string &path);

struct UiContext {
    std::string admin_token; ///< empty: the service is open (loopback only)
    UiSessions *sessions = nullptr;
    bool tls = false; ///< the session cookie is marked Secure
};

Response handle_ui(const UiContext &context, const Request &request);

/// The value of a field of an application/x-www-form-urlencoded body ('+' is a space, %XX
/// a byte); empty when absent.
std::string form_field(const std::string &body, const std::string &name);

} // namespace vexo_cloud

#endif

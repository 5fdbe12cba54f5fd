/// Who may use the admin interface: a client with the admin token (Authorization: Bearer), or
/// a browser with a login session cookie. A state-changing request that only has the cookie
/// must also carry "X-Vexo-UI: 1", which a form or link of another site cannot add, so that
/// another site cannot make a logged-in browser change an order.
#ifndef VEXO_CLOUD_UI_AUTH_H
#define VEXO_CLOUD_UI_AUTH_H

#include <optional>
#include <string>

#include "cloud_service.h"
#include "ui_sessions.h"

namespace vexo_cloud {

constexpr char kSessionCookie[] = "vexo_session";

/// The value of the cookie called name in the request's Cookie header; empty when absent.
std::string cookie_value(const Request &request, const std::string &name);

/// True when the request carries the session cookie of a live session.
bool has_session(const Request &request, UiSessions &sessions, uint64_t now);

/// nullopt when the request may go on to the admin interface; else the refusal: 401 without
/// the token or a live session, 403 for a PUT/POST (any method but GET/HEAD) that has only
/// the session and lacks "X-Vexo-UI: 1". An empty token lets everything through (a
/// loopback-only service).
std::optional<Response> admin_refusal(const Request &request, const std::string &token,
                                      UiSessions &sessions, uint64_t now);

/// The Set-Cookie value that hands out a session (HttpOnly, SameSite=Strict, Path=/, and
/// Secure when served over TLS), or that removes it when id is empty.
std::string session_cookie(const std::string &id, uint64_t max_age_s, bool tls);

} // namespace vexo_cloud

#endif

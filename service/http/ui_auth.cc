/// Admin access by token or session cookie.
#include "ui_auth.h"

#include "admin_api.h"
#include "answers.h"

namespace vexo_cloud {

namespace {

constexpr int32_t kUnauthorized = 401;
constexpr int32_t kForbidden = 403;

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

} // namespace

std::string cookie_value(const Request &request, const std::string &name) {
    const auto it = request.headers.find("cookie");
    if (it == request.headers.end()) {
        return "";
    }
    const std::string &header = it->second;
    size_t at = 0;
    while (at <= header.size()) {
        size_t end = header.find(';', at);
        if (end == std::string::npos) {
            end = header.size();
        }
        const std::string pair = header.substr(at, end - at);
        const size_t eq = pair.find('=');
        if (eq != std::string::npos && trimmed(pair.substr(0, eq)) == name) {
            return trimmed(pair.substr(eq + 1));
        }
        at = end + 1;
    }
    return "";
}

bool has_session(const Request &request, UiSessions &sessions, uint64_t now) {
    const std::string id = cookie_value(request, kSessionCookie);
    return !id.empty() && sessions.valid(id, now);
}

std::optional<Response> admin_refusal(const Request &request, const std::string &token,
                                      UiSessions &sessions, uint64_t now) {
    if (admin_token_accepted(request, token)) {
        return std::nullopt;
    }
    if (!has_session(request, sessions, now)) {
        return error_answer(kUnauthorized, "missing or wrong admin token");
    }
    const bool reads = request.method == "GET" || request.method == "HEAD";
    const auto ui = request.headers.find("x-vexo-ui");
    if (!reads && (ui == request.headers.end() || ui->second != "1")) {
        return error_answer(kForbidden, "a change from the browser view needs X-Vexo-UI: 1");
    }
    return std::nullopt;
}

std::string session_cookie(const std::string &id, uint64_t max_age_s, bool tls) {
    std::string cookie = std::string(kSessionCookie) + "=" + id + "; Path=/; HttpOnly; " +
                         "SameSite=Strict; Max-Age=" + std::to_string(id.empty() ? 0 : max_age_s);
    if (tls) {
        cookie += "; Secure";
    }
    return cookie;
}

} // namespace vexo_cloud

/// The browser view's pages, login and logout.
#include "ui_routes.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

#include "answers.h"
#include "request_rules.h"
#include "ui_assets.h"
#include "ui_auth.h"

namespace vexo_cloud {

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kSeeOther = 303;
constexpr int32_t kUnauthorized = 401;
constexpr int32_t kNotFound = 404;
constexpr int32_t kMethodNotAllowed = 405;
constexpr int32_t kInternalError = 500;
constexpr char kLoginPage[] = "login.html";
constexpr char kIndexPage[] = "index.html";
/// The login page's hidden error line, shown after a wrong token.
constexpr char kHiddenError[] = "<p id=\"login-error\" hidden>";
constexpr char kShownError[] = "<p id=\"login-error\">";

/// A form field's value: '+' is a space, then %XX sequences decoded as in a path.
std::string form_decoded(std::string text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    return decoded_path(text);
}

Response asset_answer(const UiAsset &asset, int32_t status = kOk) {
    Response answer;
    answer.status = status;
    answer.content_type = asset.content_type;
    answer.body.assign(reinterpret_cast<const char *>(asset.data), asset.size);
    // The files change with the service's version: the browser asks again each time.
    answer.headers.emplace_back("Cache-Control", "no-cache");
    return answer;
}

Response login_page(bool wrong_token) {
    const UiAsset *asset = find_ui_asset(kLoginPage);
    if (asset == nullptr) {
        return error_answer(kInternalError, "the login page is missing from this build");
    }
    Response answer = asset_answer(*asset, wrong_token ? kUnauthorized : kOk);
    if (wrong_token) {
        const size_t at = answer.body.find(kHiddenError);
        if (at != std::string::npos) {
            answer.body.replace(at, std::strlen(kHiddenError), kShownError);
        }
    }
    answer.headers.clear();
    answer.headers.emplace_back("Cache-Control", "no-store");
    return answer;
}

Response redirect_to_page(const std::string &cookie) {
    Response answer;
    answer.status = kSeeOther;
    answer.content_type = "text/plain; charset=utf-8";
    answer.body = "see /ui/\n";
    answer.headers.emplace_back("Location", kUiPrefix);
    if (!cookie.empty()) {
        answer.headers.emplace_back("Set-Cookie", cookie);
    }
    answer.headers.emplace_back("Cache-Control", "no-store");
    return answer;
}

bool token_matches(const std::string &given, const std::string &token) {
    return given.size() == token.size() &&
           CRYPTO_memcmp(given.data(), token.data(), token.size()) == 0;
}

Response login(const UiContext &context, const Request &request) {
    const std::string given = form_field(request.body, "token");
    if (!context.admin_token.empty() && !token_matches(given, context.admin_token)) {
        return login_page(true);
    }
    const std::string id = context.sessions->create(wall_seconds());
    if (id.empty()) {
        return error_answer(kInternalError, "no random source for a session");
    }
    return redirect_to_page(session_cookie(id, context.sessions->lifetime(), context.tls));
}

Response logout(const UiContext &context, const Request &request) {
    const std::string id = cookie_value(request, kSessionCookie);
    if (!id.empty()) {
        context.sessions->end(id, wall_seconds());
    }
    return redirect_to_page(session_cookie("", 0, context.tls));
}

} // namespace

bool is_ui_path(const std::string &path) {
    return path == "/ui" || path.compare(0, sizeof kUiPrefix - 1, kUiPrefix) == 0;
}

std::string form_field(const std::string &body, const std::string &name) {
    size_t at = 0;
    while (at <= body.size()) {
        size_t end = body.find('&', at);
        if (end == std::string::npos) {
            end = body.size();
        }
        const std::string pair = body.substr(at, end - at);
        const size_t eq = pair.find('=');
        if (form_decoded(pair.substr(0, eq)) == name) {
            return eq == std::string::npos ? "" : form_decoded(pair.substr(eq + 1));
        }
        at = end + 1;
    }
    return "";
}

Response handle_ui(const UiContext &context, const Request &request) {
    const std::string name =
        request.path.size() < sizeof kUiPrefix ? "" : request.path.substr(sizeof kUiPrefix - 1);
    if (request.method == "POST") {
        if (name == "login") {
            return login(context, request);
        }
        if (name == "logout") {
            return logout(context, request);
        }
        return error_answer(kMethodNotAllowed, "method POST not allowed");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return error_answer(kMethodNotAllowed, "method " + request.method + " not allowed");
    }
    if (request.path == "/ui") {
        return redirect_to_page("");
    }
    if (name.empty() || name == kIndexPage) {
        const bool open =
            context.admin_token.empty() || has_session(request, *context.sessions, wall_seconds());
        if (!open) {
            return login_page(false);
        }
        const UiAsset *page = find_ui_asset(kIndexPage);
        return page != nullptr
                   ? asset_answer(*page)
                   : error_answer(kInternalError, "the page is missing from this build");
    }
    if (name == "login") {
        return login_page(false);
    }
    const UiAsset *asset = find_ui_asset(name);
    if (asset == nullptr) {
        return error_answer(kNotFound, "no such resource");
    }
    return asset_answer(*asset);
}

const UiAsset *find_ui_asset(const std::string &name) {
    for (size_t i = 0; i < kUiAssetCount; ++i) {
        if (name == kUiAssets[i].name) {
            return &kUiAssets[i];
        }
    }
    return nullptr;
}

} // namespace vexo_cloud

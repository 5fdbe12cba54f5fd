/// The admin client on cpp-httplib's client: one request, its answer shown as indented JSON.
#include "admin_client.h"

#include <httplib.h>

#include <cstdio>

#include "json_fields.h"
#include "recordings_text.h"

namespace vexo_cloud {

namespace {

constexpr time_t kConnectTimeoutS = 5;
constexpr time_t kReadTimeoutS = 30;

} // namespace

int run_admin_command(const AdminCommand &command) {
    httplib::Client client(command.server);
    if (!client.is_valid()) {
        std::fprintf(stderr, "vexo-cloud: cannot use the server URL \"%s\"\n",
                     command.server.c_str());
        return 2;
    }
    client.set_connection_timeout(kConnectTimeoutS);
    client.set_read_timeout(kReadTimeoutS);
    if (!command.ca_file.empty()) {
        client.set_ca_cert_path(command.ca_file.c_str());
    }
    httplib::Headers headers;
    if (!command.admin_token.empty()) {
        headers.emplace("Authorization", "Bearer " + command.admin_token);
    }
    httplib::Result result =
        command.method == "GET" ? client.Get(command.path.c_str(), headers)
        : command.method == "PUT"
            ? client.Put(command.path.c_str(), headers, command.body, "application/json")
            : client.Post(command.path.c_str(), headers, command.body, "application/json");
    if (!result) {
        std::fprintf(stderr, "vexo-cloud: %s %s%s: %s\n", command.method.c_str(),
                     command.server.c_str(), command.path.c_str(),
                     httplib::to_string(result.error()).c_str());
        return 2;
    }
    const std::optional<Json> body = parse_object(result->body);
    const bool ok = result->status >= 200 && result->status <= 299;
    if (!ok) {
        std::string error = result->body;
        if (body && body->contains("error") && body->at("error").is_string()) {
            error = body->at("error").get<std::string>();
        }
        std::fprintf(stderr, "vexo-cloud: the service refused: %d %s\n", result->status,
                     error.c_str());
        return 1;
    }
    if (command.recordings_table) {
        std::string error = "not JSON";
        const std::optional<std::string> table =
            body ? recordings_text(*body, &error) : std::nullopt;
        if (!table) {
            std::fprintf(stderr, "vexo-cloud: the service's recordings answer is unusable: %s\n",
                         error.c_str());
            return 2;
        }
        std::fputs((limits_summary(command.device, *body) + table.value()).c_str(), stdout);
        return 0;
    }
    std::printf("%s\n", body ? to_text(*body, 2).c_str() : result->body.c_str());
    return 0;
}

} // namespace vexo_cloud

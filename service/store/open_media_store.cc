/// The --media URL and the store it names.
#include "open_media_store.h"

#include <cstdlib>
#include <stdexcept>

#include "durable_file.h"
#include "fs_media_store.h"
#include "s3_media_store.h"

namespace vexo_cloud {

namespace {

constexpr char kFileScheme[] = "file:";
constexpr char kS3Scheme[] = "s3://";

std::string environment(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

S3Config parse_s3_url(const std::string &url) {
    S3Config config;
    const std::string rest = url.substr(sizeof(kS3Scheme) - 1);
    const size_t question = rest.find('?');
    config.bucket = rest.substr(0, question);
    if (config.bucket.size() < 3 || config.bucket.find('/') != std::string::npos) {
        throw std::invalid_argument("--media " + url + ": the bucket name must be 3 or more " +
                                    "characters without '/'");
    }
    std::string query = question == std::string::npos ? "" : rest.substr(question + 1);
    while (!query.empty()) {
        const size_t amp = query.find('&');
        const std::string item = query.substr(0, amp);
        query = amp == std::string::npos ? "" : query.substr(amp + 1);
        const size_t equals = item.find('=');
        const std::string key = item.substr(0, equals);
        const std::string value = equals == std::string::npos ? "" : item.substr(equals + 1);
        if (key == "endpoint") {
            config.endpoint = value;
        } else if (key == "region") {
            config.region = value;
        } else {
            throw std::invalid_argument("--media " + url + ": unknown parameter " + key +
                                        " (endpoint, region)");
        }
    }
    while (!config.endpoint.empty() && config.endpoint.back() == '/') {
        config.endpoint.pop_back();
    }
    if (config.endpoint.rfind("http://", 0) != 0 && config.endpoint.rfind("https://", 0) != 0) {
        throw std::invalid_argument("--media " + url +
                                    ": endpoint=http://HOST:PORT or https://... is needed");
    }
    if (config.region.empty()) {
        throw std::invalid_argument("--media " + url + ": empty region");
    }
    config.access_key = environment("AWS_ACCESS_KEY_ID");
    config.secret_key = environment("AWS_SECRET_ACCESS_KEY");
    if (config.access_key.empty() || config.secret_key.empty()) {
        throw std::invalid_argument("--media " + url +
                                    ": set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY");
    }
    return config;
}

std::unique_ptr<MediaStore> open_media_store(const std::string &url, const std::string &data_dir) {
    if (url.empty()) {
        return std::make_unique<FsMediaStore>(data_dir);
    }
    if (url.rfind(kFileScheme, 0) == 0 && url.size() > sizeof(kFileScheme) - 1) {
        const std::string dir = url.substr(sizeof(kFileScheme) - 1);
        make_directory(dir);
        // A directory of its own choosing may be another service's too: the data directory's
        // lock does not cover it.
        return std::make_unique<FsMediaStore>(dir, real_file_system(), true);
    }
    if (url.rfind(kS3Scheme, 0) == 0) {
        auto store = std::make_unique<S3MediaStore>(parse_s3_url(url));
        store->create_bucket();
        return store;
    }
    throw std::invalid_argument("--media " + url +
                                ": not file:DIR or s3://BUCKET?endpoint=URL&region=R");
}

} // namespace vexo_cloud

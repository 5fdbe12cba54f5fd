/// The metadata store a URL names.
#include "open_metadata_store.h"

#include <stdexcept>

#include "media_names.h"
#include "pg_metadata_store.h"
#include "sqlite_metadata_store.h"

namespace vexo_cloud {

namespace {

constexpr char kSqlitePrefix[] = "sqlite:";

bool starts_with(const std::string &text, const char *prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

} // namespace

bool shared_metadata_url(const std::string &url) {
    return starts_with(url, "postgresql://") || starts_with(url, "postgres://");
}

bool valid_metadata_url(const std::string &url, std::string *error) {
    if (url.empty() || shared_metadata_url(url)) {
        return true;
    }
    if (starts_with(url, kSqlitePrefix)) {
        if (url.size() == std::char_traits<char>::length(kSqlitePrefix)) {
            *error = "sqlite: needs the path of the database file, e.g. sqlite:/var/lib/x.db";
            return false;
        }
        return true;
    }
    *error = "the metadata database is sqlite:PATH or postgresql://..., not \"" + url + "\"";
    return false;
}

std::unique_ptr<MetadataStore> open_metadata_store(const std::string &url,
                                                   const std::string &data_dir) {
    if (std::string error; !valid_metadata_url(url, &error)) {
        throw std::invalid_argument(error);
    }
    if (url.empty()) {
        return std::make_unique<SqliteMetadataStore>(data_dir + "/" + kDatabaseFile, false);
    }
    if (shared_metadata_url(url)) {
        return std::make_unique<PgMetadataStore>(url);
    }
    return std::make_unique<SqliteMetadataStore>(
        url.substr(std::char_traits<char>::length(kSqlitePrefix)), false);
}

} // namespace vexo_cloud

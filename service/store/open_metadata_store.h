/// Where the cloud service keeps its metadata, chosen by a URL: "sqlite:PATH" for an SQLite
/// database file, "postgresql://..." (or "postgres://...") for a PostgreSQL database in
/// libpq's URL form, or nothing for the SQLite database in the data directory.
#ifndef VEXO_CLOUD_OPEN_METADATA_STORE_H
#define VEXO_CLOUD_OPEN_METADATA_STORE_H

#include <memory>
#include <string>

#include "metadata_store.h"

namespace vexo_cloud {

/// False, with the reason in *error, for a URL of neither kind (an empty one is valid).
bool valid_metadata_url(const std::string &url, std::string *error);

/// True for a URL of a database other services may share (PostgreSQL).
bool shared_metadata_url(const std::string &url);

/// Opens the store url names, data_dir/vexo-cloud.db for an empty one. Throws StoreError
/// when it cannot, std::invalid_argument for a URL of neither kind.
std::unique_ptr<MetadataStore> open_metadata_store(const std::string &url,
                                                   const std::string &data_dir);

} // namespace vexo_cloud

#endif

/// Recordings as the public Recording values, from a metadata store: what Service and the
/// tools' read_recordings list.
#ifndef VEXO_CLOUD_STORE_VIEWS_H
#define VEXO_CLOUD_STORE_VIEWS_H

#include <string>
#include <vector>

#include "cloud_service.h"
#include "metadata_store.h"

namespace vexo_cloud {

/// The recordings of device (empty: every device) with their media files, by device and
/// start time; directory is where the file media store keeps them under data_dir. With
/// damaged not null, a recording whose metadata was quarantined appends
/// "<directory>/recording.json: <reason>" to it.
std::vector<Recording> recordings_of(MetadataStore &store, const std::string &data_dir,
                                     const std::string &device, std::vector<std::string> *damaged);

} // namespace vexo_cloud

#endif

/// The gaps a device reported: what it had to drop while the cloud could not be reached. A
/// posted gap's JSON form, and the per-device gaps.json of the JSON layout the service wrote
/// before it kept a database.
#ifndef VEXO_CLOUD_GAP_RECORDS_H
#define VEXO_CLOUD_GAP_RECORDS_H

#include <optional>
#include <string>
#include <vector>

#include "cloud_service.h"

namespace vexo_cloud {

constexpr char kGapsFile[] = "gaps.json";

/// The gap a request body holds (device left empty); nullopt with *error when the body is
/// not {"from":T1,"to":T2,"reason":"...","bytes":N} with 0 < T1 <= T2, N >= 0 and a reason of
/// 1..64 printable ASCII characters. Members besides these are ignored.
std::optional<Gap> parse_gap_post(const std::string &body, std::string *error);

/// True when two gaps report the same drop: same times, reason and bytes.
bool same_gap(const Gap &a, const Gap &b);

/// The gaps in device_dir/gaps.json, by time, each with device; empty when there is no such
/// file. Throws FileError when it cannot be read and std::runtime_error naming the file when
/// its content is not a list of gaps.
std::vector<Gap> load_gaps(const std::string &device_dir, const std::string &device);

/// read_gaps on a data directory without a database (see read_gaps).
std::vector<Gap> read_legacy_gaps(const std::string &data_dir, const std::string &device,
                                  std::vector<std::string> *damaged);

} // namespace vexo_cloud

#endif

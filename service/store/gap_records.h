/// The gaps a device reported: what it had to drop while the cloud could not be reached.
/// Kept per device in <data>/<device>/gaps.json, the whole list replaced atomically.
#ifndef VEXO_CLOUD_GAP_STORE_H
#define VEXO_CLOUD_GAP_STORE_H

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

/// gaps with gap added in time order, unless the same gap is already there (a report sent
/// again after its answer was lost); nullopt then.
std::optional<std::vector<Gap>> with_gap(const std::vector<Gap> &gaps, const Gap &gap);

/// Writes device_dir/gaps.json atomically; throws FileError.
void save_gaps(const std::string &device_dir, const std::vector<Gap> &gaps);

/// The gaps in device_dir/gaps.json, by time, each with device; empty when there is no such
/// file. Throws FileError when it cannot be read and std::runtime_error naming the file when
/// its content is not a list of gaps.
std::vector<Gap> load_gaps(const std::string &device_dir, const std::string &device);

} // namespace vexo_cloud

#endif

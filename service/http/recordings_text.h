/// What "vexo-cloud recordings DEVICE" prints: the admin interface's recordings answer as a
/// table, recordings and gaps in time order.
#ifndef VEXO_CLOUD_RECORDINGS_TEXT_H
#define VEXO_CLOUD_RECORDINGS_TEXT_H

#include <optional>
#include <string>

#include "json_fields.h"

namespace vexo_cloud {

/// A header line, then one line per recording (start, epoch, end or its state, duration,
/// files, bytes, key md5) and per gap ("gap  <from> - <to>  <reason>  <size> dropped"), by
/// time; every line ends with a newline. nullopt with *error when answer is not a
/// recordings answer.
std::optional<std::string> recordings_text(const Json &answer, std::string *error);

/// The line before the table: what device keeps and its limits, e.g. "cam1: 12 files, 8.6 MB
/// kept; quota 1 GB, 10000 files; retention 30 days", with a newline. Empty when answer has
/// no "usage" (a service that keeps no limits).
std::string limits_summary(const std::string &device, const Json &answer);

/// A size in bytes for people: "512 bytes", "8.6 MB", "1 GB" (powers of 1000).
std::string size_text(uint64_t bytes);

} // namespace vexo_cloud

#endif

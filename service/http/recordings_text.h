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

} // namespace vexo_cloud

#endif

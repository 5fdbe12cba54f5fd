// Exporting one recording into one MP4 or Matroska file.
#ifndef VEXO_MEDIA_EXPORT_JOB_H
#define VEXO_MEDIA_EXPORT_JOB_H

#include <cstdint>
#include <string>
#include <vector>

#include "catalog.h"
#include "export_writer.h"
#include "media_format.h"
#include "mux_output.h"

namespace vexo_tool {

/// Writes out_path (first as out_path + ".part", renamed when complete). A damaged file is a
/// fault: what was read before the damage is kept and the export goes on with the next file.
/// Throws ToolError: kExitError when the output cannot be written (nothing is left behind),
/// kExitFault when the recording holds nothing that can be exported.
ExportSummary export_recording(const Recording &recording, const vexo_media::Key &key,
                               const std::string &out_path, Container container,
                               const std::string &progress_label);

} // namespace vexo_tool

#endif

// Exporting one recording of a data directory into a file: the plan, a partial file renamed
// when whole, and the progress bar around the shared export loop.
#include "export_job.h"

#include <cstdio>

#include "export_plan.h"
#include "progress_bar.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

/// Removes the partial output unless released.
class PartialFile {
  public:
    explicit PartialFile(std::string path) : path_(std::move(path)) {}
    ~PartialFile() {
        if (!path_.empty()) {
            std::remove(path_.c_str());
        }
    }
    PartialFile(const PartialFile &) = delete;
    PartialFile &operator=(const PartialFile &) = delete;
    void release() { path_.clear(); }

  private:
    std::string path_;
};

std::string nothing_to_export(const Recording &recording,
                              const std::vector<vexo_media::Fault> &faults) {
    std::string message = "recording " + recording.device + " " +
                          std::to_string(recording.start_time) +
                          " holds no key frame with parameter sets and no audio to export";
    for (const vexo_media::Fault &fault : faults) {
        message += "\n  " + base_name(fault.file) + ": offset " + std::to_string(fault.offset) +
                   ": " + fault.message;
    }
    return message;
}

} // namespace

ExportSummary export_recording(const Recording &recording, const vexo_media::Key &key,
                               const std::string &out_path, Container container,
                               const std::string &progress_label) {
    const MediaFiles files = files_on_disk(media_paths(recording));
    const ExportPlan plan = plan_export(recording.payload_info, files, key, container);
    if (!plan.video && plan.audio == AudioMode::kNone) {
        throw ToolError(nothing_to_export(recording, plan.faults), kExitFault);
    }
    const std::string part_path = out_path + ".part";
    ExportSummary summary;
    {
        PartialFile partial(part_path);
        MuxOutput out(part_path, container);
        ProgressBar progress(progress_label, files.names.size());
        progress.update(0);
        summary = write_export(plan, files, key, &out, 0, files.names.size(),
                               [&progress](size_t done) { progress.update(done); });
        progress.clear();
        if (std::rename(part_path.c_str(), out_path.c_str()) != 0) {
            throw ToolError("cannot rename " + part_path + " to " + out_path);
        }
        partial.release();
    }
    return summary;
}

} // namespace vexo_tool

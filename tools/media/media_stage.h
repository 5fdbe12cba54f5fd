// Media files kept outside the data directory (vexo-cloud serve --media): the recordings'
// directories are pointed at them, after copying them from an object store into a
// temporary directory that goes when the stage does.
#ifndef VEXO_MEDIA_MEDIA_STAGE_H
#define VEXO_MEDIA_MEDIA_STAGE_H

#include <string>
#include <vector>

#include "catalog.h"

namespace vexo_tool {

class MediaStage {
  public:
    /// url as vexo-cloud serve --media takes it; empty: the files stay where they are.
    explicit MediaStage(std::string url);
    ~MediaStage();
    MediaStage(const MediaStage &) = delete;
    MediaStage &operator=(const MediaStage &) = delete;

    /// Makes each recording's directory the one holding its media files. An object the
    /// store does not have is left missing, for the commands to report. Throws ToolError
    /// when the store cannot be read.
    void place(std::vector<Recording> *recordings);

  private:
    std::string url_;
    std::string temporary_;
};

} // namespace vexo_tool

#endif

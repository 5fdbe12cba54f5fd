// A one-line progress bar on stderr, drawn only when stderr is a terminal.
#ifndef VEXO_MEDIA_PROGRESS_BAR_H
#define VEXO_MEDIA_PROGRESS_BAR_H

#include <cstdint>
#include <string>

namespace vexo_tool {

class ProgressBar {
  public:
    /// label: what is being worked on; total: the number of steps (files).
    ProgressBar(std::string label, uint64_t total);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    void update(uint64_t done);
    /// Clears the line, so that the next output starts on an empty line.
    void clear();

    /// The bar for done of total, e.g. "label [#####     ] 3/6 files  50%".
    static std::string render(const std::string &label, uint64_t done, uint64_t total);

  private:
    std::string label_;
    uint64_t total_;
    bool enabled_;
    bool drawn_ = false;
};

} // namespace vexo_tool

#endif

// Drawing the progress bar with a carriage return, so that it rewrites itself in place.
#include "progress_bar.h"

#include <cstdio>
#include <unistd.h>

namespace vexo_tool {
namespace {

constexpr uint64_t kWidth = 30;

} // namespace

ProgressBar::ProgressBar(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), enabled_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
    clear();
}

std::string ProgressBar::render(const std::string &label, uint64_t done, uint64_t total) {
    const uint64_t shown = done > total ? total : done;
    const uint64_t percent = total == 0 ? 100 : shown * 100 / total;
    const uint64_t filled = total == 0 ? kWidth : shown * kWidth / total;
    std::string bar = label + " [" + std::string(filled, '#') + std::string(kWidth - filled, ' ') +
                      "] " + std::to_string(shown) + "/" + std::to_string(total) + " files ";
    bar += std::string(percent < 10    ? 2
                       : percent < 100 ? 1
                                       : 0,
                       ' ') +
           std::to_string(percent) + "%";
    return bar;
}

void ProgressBar::update(uint64_t done) {
    if (!enabled_) {
        return;
    }
    std::fprintf(stderr, "\r%s", render(label_, done, total_).c_str());
    std::fflush(stderr);
    drawn_ = true;
}

void ProgressBar::clear() {
    if (drawn_) {
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
        drawn_ = false;
    }
}

} // namespace vexo_tool

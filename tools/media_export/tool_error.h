// Errors that end a command of the media tool, with the exit status they stand for.
#ifndef VEXO_MEDIA_TOOL_ERROR_H
#define VEXO_MEDIA_TOOL_ERROR_H

#include <stdexcept>
#include <string>

namespace vexo_tool {

/// Exit statuses: 0 all well, 1 a fault in the data was met, 2 the command could not run
/// (bad arguments, missing key, unknown recording, unwritable output).
constexpr int kExitOk = 0;
constexpr int kExitFault = 1;
constexpr int kExitError = 2;

class ToolError : public std::runtime_error {
  public:
    explicit ToolError(const std::string &message, int status = kExitError)
        : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};

} // namespace vexo_tool

#endif

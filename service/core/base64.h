/// Base64 decoding of the alarm pictures.
#ifndef VEXO_CLOUD_BASE64_H
#define VEXO_CLOUD_BASE64_H

#include <optional>
#include <string>

namespace vexo_cloud {

/// Decodes standard base64 (A-Z a-z 0-9 + /), with or without '=' padding. nullopt for any
/// other character, misplaced padding or an impossible length.
std::optional<std::string> base64_decode(const std::string &text);

} // namespace vexo_cloud

#endif

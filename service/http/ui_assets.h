/// The browser view's files (pages, scripts, styles and the bundled hls.js), compiled into
/// the service from ui/ by the build, so that the service needs nothing else at run time.
#ifndef VEXO_CLOUD_UI_ASSETS_H
#define VEXO_CLOUD_UI_ASSETS_H

#include <cstddef>
#include <string>

namespace vexo_cloud {

struct UiAsset {
    const char *name;         ///< as served under /ui/, e.g. "index.html", "vendor/hls.min.js"
    const char *content_type; ///< from the name's extension
    const unsigned char *data;
    size_t size;
};

/// Generated: every file, in the order the build listed them.
extern const UiAsset kUiAssets[];
extern const size_t kUiAssetCount;

/// The asset served as name; nullptr when there is none.
const UiAsset *find_ui_asset(const std::string &name);

} // namespace vexo_cloud

#endif

/// Makes the media store a --media URL names: "" (files under the data directory),
/// "file:DIR" (files under DIR) or "s3://BUCKET?endpoint=URL&region=R" (an S3 bucket,
/// credentials from AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY; the bucket is created when
/// missing).
#ifndef VEXO_CLOUD_OPEN_MEDIA_STORE_H
#define VEXO_CLOUD_OPEN_MEDIA_STORE_H

#include <memory>
#include <string>

#include "media_store.h"
#include "s3_client.h"

namespace vexo_cloud {

/// The S3 settings of an s3:// URL; throws std::invalid_argument naming what is wrong.
S3Config parse_s3_url(const std::string &url);

/// Throws std::invalid_argument for a URL it does not take, FileError when the store cannot
/// be reached or made.
std::unique_ptr<MediaStore> open_media_store(const std::string &url, const std::string &data_dir);

} // namespace vexo_cloud

#endif

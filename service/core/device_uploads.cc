/// What a device uploads: media files of its recordings, alarms and gap reports. Media bytes
/// and alarm pictures are written outside the service lock, to temporary objects of their
/// own, and published under their names outside it too (a name is published at most once);
/// only their rows are committed under it. An upload is answered 200 only once its file is
/// durable under its name and its row committed.
#include "alarm_store.h"
#include "answers.h"
#include "durable_file.h"
#include "gap_records.h"
#include "limit_rules.h"
#include "media_names.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kBadRequest = 400;
constexpr int32_t kConflict = 409;
constexpr int32_t kInsufficientStorage = 507;
constexpr char kAlarmsFolder[] = "alarms";
constexpr char kPictureSuffix[] = ".jpg";

// ---- helpers -------------------------------------------------------------------------------

Response conflict(const std::string &file_name) {
    return error_answer(kConflict, file_name + " is stored already, with other bytes");
}

/// The answer to a second upload of a stored media file: 200 when it brought the same bytes
/// (a device replaying what it could not be sure was stored), else 409. A row without a
/// digest (imported or adopted) gets it now. The caller holds the mutex.
Response answer_repeat(ServiceCore &core, MediaRow stored, uint64_t size,
                       const std::string &sha256) {
    if (stored.bytes != size) {
        return conflict(stored.name);
    }
    if (stored.sha256.empty()) {
        const std::optional<std::string> digest = object_sha256(*core.media, stored.object);
        if (!digest) {
            throw FileError("the stored object " + stored.object + " is gone", ENOENT);
        }
        stored.sha256 = *digest;
        core.metadata->put_media(stored);
    }
    return stored.sha256 == sha256 ? json_answer(kOk, Json::object()) : conflict(stored.name);
}

/// Why a new media file of size bytes may not be stored now; empty when it may. The caller
/// holds the mutex.
std::string media_quota_refusal(const ServiceCore &core, const std::string &device, uint64_t size) {
    return upload_quota_refusal(limits_in_force(core, device), core.metadata->usage(device), size);
}

std::string no_recording(uint32_t start) {
    return "no recording started at " + std::to_string(start) +
           ": send its start notification first";
}

/// Why one more alarm may not be taken today; empty when it may. The caller holds the mutex.
std::string alarm_refusal(const ServiceCore &core, const std::string &device) {
    return alarm_quota_refusal(limits_in_force(core, device), alarms_today(core, device));
}

/// Commits the row of an upload published under its name; the caller holds the mutex. When
/// the name was taken (published is false: a file a killed service published but never
/// acknowledged, or the same upload racing in on another connection), the bytes there decide
/// as for a repeat.
Response commit_media(ServiceCore &core, bool published, const MediaUpload &upload, MediaRow row) {
    if (std::optional<MediaRow> stored = core.metadata->media(row.device, row.name)) {
        Response answer = answer_repeat(core, std::move(*stored), upload.size(), upload.sha256());
        if (published && answer.status != kOk) {
            core.media->remove(row.object); // the row's file was gone; these bytes are not it
        }
        return answer;
    }
    if (!published) {
        const std::optional<uint64_t> size = core.media->size(row.object);
        if (!size) {
            throw FileError("something that is not a file is in the way of " + row.object, EEXIST);
        }
        row.bytes = *size;
        row.sha256.clear();
        return answer_repeat(core, row, upload.size(), upload.sha256());
    }
    try {
        core.metadata->put_media(row);
    } catch (...) {
        core.media->remove(row.object); // not acknowledged: it may come again
        throw;
    }
    return json_answer(kOk, Json::object());
}

/// The row of file_name, uploaded as object, unless the quota or its recording is gone
/// meanwhile; the caller holds the mutex.
Response admit_media(ServiceCore &core, bool published, const MediaUpload &upload,
                     const std::string &device, uint32_t start, const std::string &file_name,
                     const std::string &object) {
    // Checked again: other uploads or retention may have run while the body came. A repeat
    // of a stored file is answered by commit_media whatever the quota.
    if (!core.metadata->media(device, file_name)) {
        std::string refusal;
        int32_t status = kConflict;
        if (!core.metadata->recording(device, start)) {
            refusal = no_recording(start);
        } else {
            refusal = media_quota_refusal(core, device, upload.size());
            status = kInsufficientStorage;
        }
        if (!refusal.empty()) {
            if (published) {
                core.media->remove(object); // published, never acknowledged
            }
            return error_answer(status, refusal);
        }
    }
    MediaRow row;
    row.device = device;
    row.start_time = start;
    row.name = file_name;
    row.bytes = upload.size();
    row.sha256 = upload.sha256();
    row.object = object;
    row.stored = core.now();
    return commit_media(core, published, upload, row);
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response stream_media_upload(ServiceCore &core, const std::string &device,
                             const std::string &file_name, uint64_t content_length,
                             const BodyReader &read_body) {
    const std::optional<uint32_t> start = parse_media_name(file_name);
    if (!start) {
        return error_answer(kBadRequest, "a media file name is <start>_<index>.media");
    }
    // Checked before any of the body is read. The order's state does not matter: the device
    // decides what it records, but only within a recording it announced.
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        const std::optional<RecordingRow> recording = core.metadata->recording(device, *start);
        if (!recording || !recording->announced) {
            return error_answer(kConflict, no_recording(*start));
        }
        const std::optional<MediaRow> stored = core.metadata->media(device, file_name);
        if (stored && stored->bytes != content_length) {
            return conflict(file_name);
        }
        // A file stored already takes no room again: only a new one counts against quota.
        if (!stored) {
            const std::string refusal = media_quota_refusal(core, device, content_length);
            if (!refusal.empty()) {
                return error_answer(kInsufficientStorage, refusal);
            }
        }
    }
    const std::string object = device + "/" + std::to_string(*start) + "/" + file_name;
    const std::unique_ptr<MediaUpload> upload = core.media->begin(object);
    bool too_long = false;
    const bool whole = read_body([&](const char *data, size_t size) {
        if (upload->size() + size > content_length) {
            too_long = true;
            return false;
        }
        upload->write(data, size);
        return true;
    });
    if (too_long) {
        return error_answer(kBadRequest, "body longer than its Content-Length");
    }
    if (!whole || upload->size() != content_length) {
        return error_answer(kBadRequest, "upload incomplete: " + std::to_string(upload->size()) +
                                             " of " + std::to_string(content_length) + " bytes");
    }
    upload->finish();
    // Published outside the lock: the rename and the directory syncs are the slow part of an
    // upload, and a name is published at most once, so other devices' uploads need not wait.
    // The row, committed under the lock, is what makes it count.
    const bool published = upload->commit();
    std::lock_guard<std::mutex> lock(core.mutex);
    Response answer;
    // The check and the row in one transaction holding the device's lock: services sharing
    // the metadata cannot both take the last of a quota.
    core.metadata->transaction([&] {
        core.metadata->lock_device(device);
        answer = admit_media(core, published, *upload, device, *start, file_name, object);
    });
    return answer;
}

Response store_media_upload(ServiceCore &core, const std::string &device,
                            const std::string &file_name, const std::string &body) {
    return stream_media_upload(core, device, file_name, body.size(), [&body](const BodySink &sink) {
        return body.empty() || sink(body.data(), body.size());
    });
}

Response store_alarm_request(ServiceCore &core, const std::string &device,
                             const std::string &body) {
    std::string error;
    const std::optional<AlarmPost> alarm = parse_alarm_post(body, &error);
    if (!alarm) {
        return error_answer(kBadRequest, error);
    }
    AlarmRow row;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        const std::string refusal = alarm_refusal(core, device);
        if (!refusal.empty()) {
            return error_answer(kInsufficientStorage, refusal);
        }
        row.id = core.metadata->next_alarm_id();
    }
    row.device = device;
    row.time = alarm->time;
    row.with_picture = alarm->with_picture;
    row.extra = alarm->extra;
    if (!alarm->picture.empty()) {
        // The picture first, under a name only this alarm uses; the row that names it last.
        row.picture_object =
            device + "/" + kAlarmsFolder + "/" + std::to_string(row.id) + kPictureSuffix;
        const std::unique_ptr<MediaUpload> upload = core.media->begin(row.picture_object);
        upload->write(alarm->picture.data(), alarm->picture.size());
        upload->finish();
        if (!upload->commit()) {
            throw FileError("alarm picture " + row.picture_object + " exists already", EEXIST);
        }
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    std::string refusal;
    try {
        // Checked again, with the device's lock held to the row's commit: alarms posted at the
        // same time, here or to another service sharing the metadata, may have used the
        // quota up meanwhile.
        core.metadata->transaction([&] {
            core.metadata->lock_device(device);
            refusal = alarm_refusal(core, device);
            if (refusal.empty()) {
                row.received = core.now();
                core.metadata->add_alarm(row);
            }
        });
    } catch (...) {
        if (!row.picture_object.empty()) {
            core.media->remove(row.picture_object);
        }
        throw;
    }
    if (!refusal.empty()) {
        if (!row.picture_object.empty()) {
            core.media->remove(row.picture_object);
        }
        return error_answer(kInsufficientStorage, refusal);
    }
    return json_answer(kOk, Json::object());
}

Response store_gap_request(ServiceCore &core, const std::string &device, const std::string &body) {
    std::string error;
    std::optional<Gap> gap = parse_gap_post(body, &error);
    if (!gap) {
        return error_answer(kBadRequest, error);
    }
    gap->device = device;
    std::lock_guard<std::mutex> lock(core.mutex);
    // A gap sent again (its first answer was lost) is already stored: answered as the first.
    core.metadata->add_gap(*gap);
    return json_answer(kOk, Json::object());
}

} // namespace vexo_cloud

/// The cloud service's metadata: devices, keys, allowance counts, recordings, media files,
/// alarms, gaps, per-device limits and quarantined items. An abstract store: the service sees
/// plain values and calls, whichever database is behind them.
///
/// Not thread-safe: the service serialises its calls. Every call throws StoreError on a
/// database failure. A call outside transaction() is a transaction of its own.
#ifndef VEXO_CLOUD_METADATA_STORE_H
#define VEXO_CLOUD_METADATA_STORE_H

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "records.h"

namespace vexo_cloud {

class StoreError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The database cannot be reached now (e.g. a database server restarting); a later call may
/// work again.
class StoreUnavailable : public StoreError {
  public:
    using StoreError::StoreError;
};

class MetadataStore {
  public:
    virtual ~MetadataStore() = default;

    /// Runs work as one unit: all of its changes are kept, or, when it throws, none of them
    /// (the exception goes on to the caller). Not nested.
    virtual void transaction(const std::function<void()> &work) = 0;

    // ---- settings of the store itself (e.g. that a data directory was imported) ----
    virtual std::optional<std::string> setting(const std::string &name) = 0;
    virtual void put_setting(const std::string &name, const std::string &value) = 0;

    // ---- devices ----
    virtual std::vector<std::string> device_ids() = 0;
    virtual std::optional<DeviceState> device(const std::string &device) = 0;
    /// Creates or replaces a device's order, key and allowance; key history entries beyond
    /// those stored are added (the history only grows).
    virtual void put_device(const std::string &device, const DeviceState &state) = 0;

    // ---- recordings and their media files ----
    virtual std::optional<RecordingRow> recording(const std::string &device,
                                                  uint32_t start_time) = 0;
    virtual void put_recording(const RecordingRow &recording) = 0;
    /// Removes a recording and the rows of its media files, in one transaction.
    virtual void remove_recording(const std::string &device, uint32_t start_time) = 0;
    /// By device, then start time; device empty: every device.
    virtual std::vector<RecordingRow> recordings(const std::string &device) = 0;
    virtual std::optional<MediaRow> media(const std::string &device, const std::string &name) = 0;
    virtual void put_media(const MediaRow &media) = 0;
    virtual void remove_media(const std::string &device, const std::string &name) = 0;
    /// By device, then name; device empty: every device.
    virtual std::vector<MediaRow> media_files(const std::string &device) = 0;
    /// The media files of one recording, by name.
    virtual std::vector<MediaRow> recording_media(const std::string &device,
                                                  uint32_t start_time) = 0;

    // ---- background jobs that one service at a time runs ----
    /// Takes the lead of job (e.g. "retention") without waiting: false while another service
    /// sharing this store holds it. Held until end_lead(job), or until the store loses its
    /// connection to the database. A store only this service uses always gets it.
    virtual bool try_lead(const std::string &job) = 0;
    /// Lets the lead of job go; never throws (a lead whose connection is gone went with it).
    virtual void end_lead(const std::string &job) = 0;

    /// Inside transaction(): makes other services' lock_device(device) wait until the
    /// transaction ends, so that a quota's check and the row it lets in are one step for all
    /// services sharing the store. A store only this service uses needs nothing.
    virtual void lock_device(const std::string &device) = 0;

    // ---- alarms, gaps and reported events ----
    /// A new alarm id, higher than any this store handed out or stored before, also when
    /// several services share the store.
    virtual int64_t next_alarm_id() = 0;
    /// Adds an alarm under alarm.id.
    virtual void add_alarm(const AlarmRow &alarm) = 0;
    /// A device's alarms by time, then id.
    virtual std::vector<AlarmRow> alarms(const std::string &device) = 0;
    virtual void remove_alarm(int64_t id) = 0;
    /// False when the same gap (times, reason, bytes) is already stored.
    virtual bool add_gap(const Gap &gap) = 0;
    /// By device, then time; device empty: every device.
    virtual std::vector<Gap> gaps(const std::string &device) = 0;
    virtual void add_event(const std::string &device, uint32_t received,
                           const std::string &json) = 0;
    /// A device's reported events (JSON texts) in the order they came.
    virtual std::vector<std::string> events(const std::string &device) = 0;

    // ---- limits, and what a storage policy needs to enforce them ----
    virtual DeviceLimits limits(const std::string &device) = 0;
    virtual void put_limits(const std::string &device, const DeviceLimits &limits) = 0;
    virtual DeviceUsage usage(const std::string &device) = 0;
    /// Devices known, and recordings started and not stopped, over all devices.
    virtual uint64_t device_count() = 0;
    virtual uint64_t open_recording_count() = 0;
    /// Alarms of a device with from <= time < to (e.g. one local day).
    virtual uint64_t alarm_count(const std::string &device, uint32_t from, uint32_t to) = 0;
    /// A device's oldest recordings, at most limit of them, with the bytes and files of each.
    virtual std::vector<RecordingUsage> oldest_recordings(const std::string &device,
                                                          size_t limit) = 0;

    // ---- quarantine ----
    virtual void quarantine(const QuarantineRow &row) = 0;
    virtual std::vector<QuarantineRow> quarantined() = 0;
    /// Moves every stored row that does not read back (a recording whose payloadInfo is not a
    /// JSON object, a gap whose times or reason are not a gap's, an alarm whose picture is not
    /// a media object name) to the quarantine, and returns what it moved. at: service time.
    virtual std::vector<QuarantineRow> quarantine_damaged_rows(uint32_t at) = 0;
};

} // namespace vexo_cloud

#endif

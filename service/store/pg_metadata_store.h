/// The metadata store in a PostgreSQL database, which several services may share: the schema
/// is brought up to date at open (one service at a time), alarm ids come from a sequence,
/// background jobs take an advisory lock, and a connection lost (e.g. the server restarted)
/// is opened again on the next call, each call failing with StoreError meanwhile.
#ifndef VEXO_CLOUD_PG_METADATA_STORE_H
#define VEXO_CLOUD_PG_METADATA_STORE_H

#include <memory>
#include <set>
#include <string>

#include "metadata_store.h"

namespace vexo_cloud {

class PgConnection;

class PgMetadataStore : public MetadataStore {
  public:
    /// Connects to url (postgresql://...) and creates or upgrades the schema. Throws
    /// StoreError, also for a database of a newer schema than this program knows.
    explicit PgMetadataStore(const std::string &url);
    ~PgMetadataStore() override;

    void transaction(const std::function<void()> &work) override;
    std::optional<std::string> setting(const std::string &name) override;
    void put_setting(const std::string &name, const std::string &value) override;

    std::vector<std::string> device_ids() override;
    std::optional<DeviceState> device(const std::string &device) override;
    void put_device(const std::string &device, const DeviceState &state) override;

    std::optional<RecordingRow> recording(const std::string &device, uint32_t start_time) override;
    void put_recording(const RecordingRow &recording) override;
    void remove_recording(const std::string &device, uint32_t start_time) override;
    std::vector<RecordingRow> recordings(const std::string &device) override;
    std::optional<MediaRow> media(const std::string &device, const std::string &name) override;
    void put_media(const MediaRow &media) override;
    void remove_media(const std::string &device, const std::string &name) override;
    std::vector<MediaRow> media_files(const std::string &device) override;
    std::vector<MediaRow> recording_media(const std::string &device, uint32_t start_time) override;

    bool try_lead(const std::string &job) override;
    void end_lead(const std::string &job) override;
    /// A transaction-scoped advisory lock on the device's key.
    void lock_device(const std::string &device) override;

    int64_t next_alarm_id() override;
    void add_alarm(const AlarmRow &alarm) override;
    std::vector<AlarmRow> alarms(const std::string &device) override;
    void remove_alarm(int64_t id) override;
    bool add_gap(const Gap &gap) override;
    std::vector<Gap> gaps(const std::string &device) override;
    void add_event(const std::string &device, uint32_t received, const std::string &json) override;
    std::vector<std::string> events(const std::string &device) override;

    DeviceLimits limits(const std::string &device) override;
    void put_limits(const std::string &device, const DeviceLimits &limits) override;
    DeviceUsage usage(const std::string &device) override;
    uint64_t device_count() override;
    uint64_t open_recording_count() override;
    uint64_t alarm_count(const std::string &device, uint32_t from, uint32_t to) override;
    std::vector<RecordingUsage> oldest_recordings(const std::string &device, size_t limit) override;

    void quarantine(const QuarantineRow &row) override;
    std::vector<QuarantineRow> quarantined() override;
    std::vector<QuarantineRow> quarantine_damaged_rows(uint32_t at) override;

  private:
    void migrate();
    /// Runs work in the caller's transaction, or else in one of its own.
    void as_unit(const std::function<void()> &work);
    /// The jobs led, forgotten when the connection was opened again (the locks went with it).
    std::set<std::string> &leads();

    std::unique_ptr<PgConnection> db_;
    bool in_transaction_ = false;
    std::set<std::string> leads_;
};

} // namespace vexo_cloud

#endif

/// The metadata store's queries on SQLite.
#include "sqlite_metadata_store.h"

#include "sqlite_db.h"
#include "sqlite_schema.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

uint32_t u32(const Query &q, int column) {
    return static_cast<uint32_t>(q.integer(column));
}

int32_t i32(const Query &q, int column) {
    return static_cast<int32_t>(q.integer(column));
}

constexpr char kRecordingColumns[] = "SELECT device, start_time, end_time, announced, "
                                     "payload_info, mtu, announced_md5, key, key_md5 FROM "
                                     "recordings ";

RecordingRow recording_of(const Query &q) {
    RecordingRow row;
    row.device = q.text(0);
    row.start_time = u32(q, 1);
    row.end_time = u32(q, 2);
    row.announced = q.integer(3) != 0;
    row.payload_info = q.text(4);
    row.mtu = i32(q, 5);
    row.announced_md5 = q.text(6);
    row.key = q.text(7);
    row.key_md5 = q.text(8);
    return row;
}

constexpr char kMediaColumns[] =
    "SELECT device, start_time, name, bytes, sha256, object, stored FROM media ";

MediaRow media_of(const Query &q) {
    MediaRow row;
    row.device = q.text(0);
    row.start_time = u32(q, 1);
    row.name = q.text(2);
    row.bytes = static_cast<uint64_t>(q.integer(3));
    row.sha256 = q.text(4);
    row.object = q.text(5);
    row.stored = u32(q, 6);
    return row;
}

Gap gap_of(const Query &q) {
    Gap gap;
    gap.device = q.text(0);
    gap.from = u32(q, 1);
    gap.to = u32(q, 2);
    gap.reason = q.text(3);
    gap.bytes = static_cast<uint64_t>(q.integer(4));
    return gap;
}

/// "WHERE device = ?" when device is set, else every device: "WHERE ? = ''".
constexpr char kOfDevice[] = "WHERE (device = ?1 OR ?1 = '') ";

// What quarantine_damaged_rows looks for, each a condition on one table's rows.
constexpr char kBadPayload[] = "announced <> 0 AND (CASE WHEN json_valid(payload_info) THEN "
                               "json_type(payload_info) END) IS NOT 'object'";
constexpr char kBadGap[] = "from_time <= 0 OR to_time < from_time OR length(reason) NOT BETWEEN "
                           "1 AND 64 OR reason GLOB '*[^ -~]*' OR bytes < 0";
constexpr char kBadPicture[] =
    "picture <> '' AND (picture NOT GLOB device || '/alarms/*' OR picture GLOB '*..*')";

} // namespace

// ---- opening -------------------------------------------------------------------------------

SqliteMetadataStore::SqliteMetadataStore(const std::string &path, bool read_only)
    : db_(std::make_unique<SqliteDb>(path, read_only)) {
    const int64_t found = [this] {
        Query version = db_->query("PRAGMA user_version");
        return version.step() ? version.integer(0) : 0;
    }();
    if (found > kSchemaVersion) {
        throw StoreError(path + " has schema version " + std::to_string(found) +
                         ", newer than this program's " + std::to_string(kSchemaVersion));
    }
    if (read_only) {
        if (found != kSchemaVersion) {
            throw StoreError(path + " has schema version " + std::to_string(found) + ", not " +
                             std::to_string(kSchemaVersion));
        }
        return;
    }
    // WAL: readers see the last commit while the service writes. NORMAL sync: a commit is in
    // the log before it returns, so a killed process loses nothing, and the log is synced at
    // each checkpoint instead of each commit, which would serialise every upload behind a
    // disk flush. A power loss may take the last commits back; the media files themselves
    // are synced before they are acknowledged, and start-up adopts a file whose row is lost.
    db_->exec("PRAGMA journal_mode=WAL");
    db_->exec("PRAGMA synchronous=NORMAL");
    if (found == 0) {
        create_schema();
    }
}

SqliteMetadataStore::~SqliteMetadataStore() = default;

void SqliteMetadataStore::create_schema() {
    transaction([this] {
        db_->exec(kSchemaV1);
        db_->exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
    });
}

void SqliteMetadataStore::transaction(const std::function<void()> &work) {
    if (in_transaction_) {
        throw StoreError("transactions do not nest");
    }
    db_->exec("BEGIN IMMEDIATE");
    in_transaction_ = true;
    try {
        work();
        db_->exec("COMMIT");
        in_transaction_ = false;
    } catch (...) {
        in_transaction_ = false;
        try {
            db_->exec("ROLLBACK");
        } catch (const StoreError &) {
            // SQLite may have rolled back already; the first failure is the one to report.
        }
        throw;
    }
}

std::optional<std::string> SqliteMetadataStore::setting(const std::string &name) {
    Query q = db_->query("SELECT value FROM settings WHERE name = ?");
    q.bind(1, name);
    return q.step() ? std::optional<std::string>(q.text(0)) : std::nullopt;
}

void SqliteMetadataStore::put_setting(const std::string &name, const std::string &value) {
    db_->query("INSERT OR REPLACE INTO settings(name, value) VALUES(?, ?)")
        .bind(1, name)
        .bind(2, value)
        .run();
}

// ---- devices -------------------------------------------------------------------------------

std::vector<std::string> SqliteMetadataStore::device_ids() {
    Query q = db_->query("SELECT id FROM devices ORDER BY id");
    std::vector<std::string> ids;
    while (q.step()) {
        ids.push_back(q.text(0));
    }
    return ids;
}

std::optional<DeviceState> SqliteMetadataStore::device(const std::string &device) {
    DeviceState state;
    {
        Query q = db_->query("SELECT store_mode, event_duration, slice_duration, "
                             "silence_interval, daily_events, expired, aborted, key, key_md5, "
                             "allowance_day, allowance_started FROM devices WHERE id = ?");
        q.bind(1, device);
        if (!q.step()) {
            return std::nullopt;
        }
        state.order.store_mode = q.text(0);
        state.order.event_duration = i32(q, 1);
        state.order.slice_duration = i32(q, 2);
        state.order.silence_interval = i32(q, 3);
        state.order.daily_events = i32(q, 4);
        state.order.expired = q.integer(5) != 0;
        state.order.aborted = q.integer(6) != 0;
        state.key = q.text(7);
        state.key_md5 = q.text(8);
        state.allowance.day = i32(q, 9);
        state.allowance.events_started = i32(q, 10);
    }
    Query q = db_->query("SELECT key, md5, issued FROM key_history WHERE device = ? ORDER BY seq");
    q.bind(1, device);
    while (q.step()) {
        state.key_history.push_back(KeyRecord{q.text(0), q.text(1), u32(q, 2)});
    }
    return state;
}

void SqliteMetadataStore::put_device(const std::string &device, const DeviceState &state) {
    const Order &o = state.order;
    db_->query("INSERT OR REPLACE INTO devices(id, store_mode, event_duration, slice_duration, "
               "silence_interval, daily_events, expired, aborted, key, key_md5, allowance_day, "
               "allowance_started) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(1, device)
        .bind(2, o.store_mode)
        .bind(3, int64_t{o.event_duration})
        .bind(4, int64_t{o.slice_duration})
        .bind(5, int64_t{o.silence_interval})
        .bind(6, int64_t{o.daily_events})
        .bind(7, int64_t{o.expired})
        .bind(8, int64_t{o.aborted})
        .bind(9, state.key)
        .bind(10, state.key_md5)
        .bind(11, int64_t{state.allowance.day})
        .bind(12, int64_t{state.allowance.events_started})
        .run();
    int64_t stored = 0;
    {
        Query q = db_->query("SELECT count(*) FROM key_history WHERE device = ?");
        q.bind(1, device);
        stored = q.step() ? q.integer(0) : 0;
    }
    for (size_t i = static_cast<size_t>(stored); i < state.key_history.size(); ++i) {
        const KeyRecord &key = state.key_history[i];
        db_->query("INSERT INTO key_history(device, seq, key, md5, issued) VALUES(?, ?, ?, ?, ?)")
            .bind(1, device)
            .bind(2, static_cast<int64_t>(i))
            .bind(3, key.key)
            .bind(4, key.md5)
            .bind(5, int64_t{key.issued})
            .run();
    }
}

// ---- recordings and media ------------------------------------------------------------------

std::optional<RecordingRow> SqliteMetadataStore::recording(const std::string &device,
                                                           uint32_t start_time) {
    Query q = db_->query(std::string(kRecordingColumns) + "WHERE device = ? AND start_time = ?");
    q.bind(1, device).bind(2, int64_t{start_time});
    return q.step() ? std::optional<RecordingRow>(recording_of(q)) : std::nullopt;
}

void SqliteMetadataStore::put_recording(const RecordingRow &r) {
    db_->query("INSERT OR REPLACE INTO recordings(device, start_time, end_time, announced, "
               "payload_info, mtu, announced_md5, key, key_md5) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(1, r.device)
        .bind(2, int64_t{r.start_time})
        .bind(3, int64_t{r.end_time})
        .bind(4, int64_t{r.announced})
        .bind(5, r.payload_info)
        .bind(6, int64_t{r.mtu})
        .bind(7, r.announced_md5)
        .bind(8, r.key)
        .bind(9, r.key_md5)
        .run();
}

void SqliteMetadataStore::remove_recording(const std::string &device, uint32_t start_time) {
    const auto remove = [&] {
        db_->query("DELETE FROM media WHERE device = ? AND start_time = ?")
            .bind(1, device)
            .bind(2, int64_t{start_time})
            .run();
        db_->query("DELETE FROM recordings WHERE device = ? AND start_time = ?")
            .bind(1, device)
            .bind(2, int64_t{start_time})
            .run();
    };
    if (in_transaction_) {
        remove(); // part of the caller's unit
    } else {
        transaction(remove);
    }
}

std::vector<RecordingRow> SqliteMetadataStore::recordings(const std::string &device) {
    Query q =
        db_->query(std::string(kRecordingColumns) + kOfDevice + "ORDER BY device, start_time");
    q.bind(1, device);
    std::vector<RecordingRow> rows;
    while (q.step()) {
        rows.push_back(recording_of(q));
    }
    return rows;
}

std::optional<MediaRow> SqliteMetadataStore::media(const std::string &device,
                                                   const std::string &name) {
    Query q = db_->query(std::string(kMediaColumns) + "WHERE device = ? AND name = ?");
    q.bind(1, device).bind(2, name);
    return q.step() ? std::optional<MediaRow>(media_of(q)) : std::nullopt;
}

void SqliteMetadataStore::put_media(const MediaRow &m) {
    db_->query("INSERT OR REPLACE INTO media(device, name, start_time, bytes, sha256, object, "
               "stored) VALUES(?, ?, ?, ?, ?, ?, ?)")
        .bind(1, m.device)
        .bind(2, m.name)
        .bind(3, int64_t{m.start_time})
        .bind(4, static_cast<int64_t>(m.bytes))
        .bind(5, m.sha256)
        .bind(6, m.object)
        .bind(7, int64_t{m.stored})
        .run();
}

void SqliteMetadataStore::remove_media(const std::string &device, const std::string &name) {
    db_->query("DELETE FROM media WHERE device = ? AND name = ?")
        .bind(1, device)
        .bind(2, name)
        .run();
}

std::vector<MediaRow> SqliteMetadataStore::media_files(const std::string &device) {
    Query q = db_->query(std::string(kMediaColumns) + kOfDevice + "ORDER BY device, name");
    q.bind(1, device);
    std::vector<MediaRow> rows;
    while (q.step()) {
        rows.push_back(media_of(q));
    }
    return rows;
}

std::vector<MediaRow> SqliteMetadataStore::recording_media(const std::string &device,
                                                           uint32_t start_time) {
    Query q = db_->query(std::string(kMediaColumns) +
                         "WHERE device = ? AND start_time = ? ORDER BY name");
    q.bind(1, device).bind(2, int64_t{start_time});
    std::vector<MediaRow> rows;
    while (q.step()) {
        rows.push_back(media_of(q));
    }
    return rows;
}

// ---- alarms, gaps, events ------------------------------------------------------------------

bool SqliteMetadataStore::try_lead(const std::string &) {
    return true; // the data directory's lock keeps every other service out of this database
}

void SqliteMetadataStore::end_lead(const std::string &) {}

void SqliteMetadataStore::lock_device(const std::string &) {
    // The data directory's lock keeps other services out of this database.
}

int64_t SqliteMetadataStore::next_alarm_id() {
    // One service writes this database (the data directory's lock): the highest id stored is
    // read once, and ids of alarms removed since are not handed out again.
    if (last_alarm_id_ < 0) {
        Query q = db_->query("SELECT coalesce(max(id), 0) FROM alarms");
        last_alarm_id_ = q.step() ? q.integer(0) : 0;
    }
    return ++last_alarm_id_;
}

void SqliteMetadataStore::add_alarm(const AlarmRow &a) {
    if (last_alarm_id_ >= 0 && a.id > last_alarm_id_) {
        last_alarm_id_ = a.id;
    }
    db_->query("INSERT INTO alarms(id, device, time, with_picture, extra, picture, received) "
               "VALUES(?, ?, ?, ?, ?, ?, ?)")
        .bind(1, a.id)
        .bind(2, a.device)
        .bind(3, int64_t{a.time})
        .bind(4, int64_t{a.with_picture})
        .bind(5, a.extra)
        .bind(6, a.picture_object)
        .bind(7, int64_t{a.received})
        .run();
}

std::vector<AlarmRow> SqliteMetadataStore::alarms(const std::string &device) {
    Query q = db_->query("SELECT id, device, time, with_picture, extra, picture, received FROM "
                         "alarms WHERE device = ? ORDER BY time, id");
    q.bind(1, device);
    std::vector<AlarmRow> rows;
    while (q.step()) {
        rows.push_back(AlarmRow{q.integer(0), q.text(1), u32(q, 2), q.integer(3) != 0, q.text(4),
                                q.text(5), u32(q, 6)});
    }
    return rows;
}

void SqliteMetadataStore::remove_alarm(int64_t id) {
    db_->query("DELETE FROM alarms WHERE id = ?").bind(1, id).run();
}

bool SqliteMetadataStore::add_gap(const Gap &g) {
    db_->query("INSERT OR IGNORE INTO gaps(device, from_time, to_time, reason, bytes) "
               "VALUES(?, ?, ?, ?, ?)")
        .bind(1, g.device)
        .bind(2, int64_t{g.from})
        .bind(3, int64_t{g.to})
        .bind(4, g.reason)
        .bind(5, static_cast<int64_t>(g.bytes))
        .run();
    return db_->changes() > 0;
}

std::vector<Gap> SqliteMetadataStore::gaps(const std::string &device) {
    Query q = db_->query("SELECT device, from_time, to_time, reason, bytes FROM gaps " +
                         std::string(kOfDevice) +
                         "ORDER BY device, from_time, to_time, reason, "
                         "bytes");
    q.bind(1, device);
    std::vector<Gap> rows;
    while (q.step()) {
        rows.push_back(gap_of(q));
    }
    return rows;
}

void SqliteMetadataStore::add_event(const std::string &device, uint32_t received,
                                    const std::string &json) {
    db_->query("INSERT INTO events(device, received, body) VALUES(?, ?, ?)")
        .bind(1, device)
        .bind(2, int64_t{received})
        .bind(3, json)
        .run();
}

std::vector<std::string> SqliteMetadataStore::events(const std::string &device) {
    Query q = db_->query("SELECT body FROM events WHERE device = ? ORDER BY id");
    q.bind(1, device);
    std::vector<std::string> rows;
    while (q.step()) {
        rows.push_back(q.text(0));
    }
    return rows;
}

// ---- limits and usage ----------------------------------------------------------------------

DeviceLimits SqliteMetadataStore::limits(const std::string &device) {
    Query q = db_->query("SELECT max_bytes, max_files, max_alarms_per_day, retention_days, "
                         "retention_bytes FROM device_limits WHERE device = ?");
    q.bind(1, device);
    DeviceLimits limits;
    if (q.step()) {
        limits.max_bytes = q.optional_integer(0);
        limits.max_files = q.optional_integer(1);
        if (const auto alarms = q.optional_integer(2)) {
            limits.max_alarms_per_day = static_cast<uint32_t>(*alarms);
        }
        if (const auto days = q.optional_integer(3)) {
            limits.retention_days = static_cast<uint32_t>(*days);
        }
        limits.retention_bytes = q.optional_integer(4);
    }
    return limits;
}

void SqliteMetadataStore::put_limits(const std::string &device, const DeviceLimits &limits) {
    auto widen = [](const std::optional<uint32_t> &value) {
        return value ? std::optional<uint64_t>(*value) : std::nullopt;
    };
    db_->query("INSERT OR REPLACE INTO device_limits(device, max_bytes, max_files, "
               "max_alarms_per_day, retention_days, retention_bytes) VALUES(?, ?, ?, ?, ?, ?)")
        .bind(1, device)
        .bind(2, limits.max_bytes)
        .bind(3, limits.max_files)
        .bind(4, widen(limits.max_alarms_per_day))
        .bind(5, widen(limits.retention_days))
        .bind(6, limits.retention_bytes)
        .run();
}

DeviceUsage SqliteMetadataStore::usage(const std::string &device) {
    Query q = db_->query("SELECT coalesce(sum(bytes), 0), count(*) FROM media WHERE device = ?");
    q.bind(1, device);
    DeviceUsage usage;
    if (q.step()) {
        usage.bytes = static_cast<uint64_t>(q.integer(0));
        usage.files = static_cast<uint64_t>(q.integer(1));
    }
    return usage;
}

uint64_t SqliteMetadataStore::device_count() {
    Query q = db_->query("SELECT count(*) FROM devices");
    return q.step() ? static_cast<uint64_t>(q.integer(0)) : 0;
}

uint64_t SqliteMetadataStore::open_recording_count() {
    Query q = db_->query("SELECT count(*) FROM recordings WHERE end_time = 0 AND announced <> 0");
    return q.step() ? static_cast<uint64_t>(q.integer(0)) : 0;
}

uint64_t SqliteMetadataStore::alarm_count(const std::string &device, uint32_t from, uint32_t to) {
    Query q = db_->query("SELECT count(*) FROM alarms WHERE device = ? AND time >= ? AND time < ?");
    q.bind(1, device).bind(2, int64_t{from}).bind(3, int64_t{to});
    return q.step() ? static_cast<uint64_t>(q.integer(0)) : 0;
}

std::vector<RecordingUsage> SqliteMetadataStore::oldest_recordings(const std::string &device,
                                                                   size_t limit) {
    Query q = db_->query("SELECT r.start_time, r.end_time, coalesce(sum(m.bytes), 0), "
                         "count(m.name) FROM recordings r LEFT JOIN media m ON m.device = "
                         "r.device AND m.start_time = r.start_time WHERE r.device = ? GROUP BY "
                         "r.start_time ORDER BY r.start_time LIMIT ?");
    q.bind(1, device).bind(2, static_cast<int64_t>(limit));
    std::vector<RecordingUsage> rows;
    while (q.step()) {
        rows.push_back(RecordingUsage{u32(q, 0), u32(q, 1), static_cast<uint64_t>(q.integer(2)),
                                      static_cast<uint64_t>(q.integer(3))});
    }
    return rows;
}

// ---- quarantine ----------------------------------------------------------------------------

void SqliteMetadataStore::quarantine(const QuarantineRow &r) {
    db_->query("INSERT INTO quarantine(kind, device, start_time, item, reason, content, at) "
               "VALUES(?, ?, ?, ?, ?, ?, ?)")
        .bind(1, r.kind)
        .bind(2, r.device)
        .bind(3, int64_t{r.start_time})
        .bind(4, r.item)
        .bind(5, r.reason)
        .bind(6, r.content)
        .bind(7, int64_t{r.at})
        .run();
}

std::vector<QuarantineRow> SqliteMetadataStore::quarantined() {
    Query q = db_->query("SELECT id, kind, device, start_time, item, reason, content, at FROM "
                         "quarantine ORDER BY id");
    std::vector<QuarantineRow> rows;
    while (q.step()) {
        rows.push_back(QuarantineRow{q.integer(0), q.text(1), q.text(2), u32(q, 3), q.text(4),
                                     q.text(5), q.text(6), u32(q, 7)});
    }
    return rows;
}

std::vector<QuarantineRow> SqliteMetadataStore::quarantine_damaged_rows(uint32_t at) {
    const int64_t first = [this] {
        Query q = db_->query("SELECT coalesce(max(id), 0) FROM quarantine");
        return q.step() ? q.integer(0) : 0;
    }();
    transaction([&] {
        // A recording keeps its row, key and media files: only what does not read back
        // goes, and the recording is listed as one without a start notification.
        db_->query(std::string("INSERT INTO quarantine(kind, device, start_time, item, reason, "
                               "content, at) SELECT 'recording', device, start_time, 'recording "
                               "row', 'payloadInfo is not a JSON object', json_object('endTime', "
                               "end_time, 'payloadInfo', payload_info, 'mtu', mtu, 'enKeyMd5', "
                               "announced_md5), ?1 FROM recordings WHERE ") +
                   kBadPayload)
            .bind(1, int64_t{at})
            .run();
        db_->exec(std::string("UPDATE recordings SET announced = 0, payload_info = '', mtu = 0, "
                              "announced_md5 = '' WHERE ") +
                  kBadPayload);
        db_->query(std::string("INSERT INTO quarantine(kind, device, start_time, item, reason, "
                               "content, at) SELECT 'gap', device, 0, 'gap row', 'not a gap', "
                               "json_object('from', from_time, 'to', to_time, 'reason', reason, "
                               "'bytes', bytes), ?1 FROM gaps WHERE ") +
                   kBadGap)
            .bind(1, int64_t{at})
            .run();
        db_->exec(std::string("DELETE FROM gaps WHERE ") + kBadGap);
        db_->query(std::string("INSERT INTO quarantine(kind, device, start_time, item, reason, "
                               "content, at) SELECT 'alarm', device, 0, 'alarm ' || id, 'bad "
                               "picture name', json_object('time', time, 'withPicture', "
                               "with_picture, 'extra', extra, 'picture', picture), ?1 FROM "
                               "alarms WHERE ") +
                   kBadPicture)
            .bind(1, int64_t{at})
            .run();
        db_->exec(std::string("DELETE FROM alarms WHERE ") + kBadPicture);
    });
    std::vector<QuarantineRow> moved;
    for (QuarantineRow &row : quarantined()) {
        if (row.id > first) {
            moved.push_back(std::move(row));
        }
    }
    return moved;
}

} // namespace vexo_cloud

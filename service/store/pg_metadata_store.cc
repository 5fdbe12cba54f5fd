/// The metadata store's queries on PostgreSQL: those of the SQLite store, with $n parameters,
/// ON CONFLICT for SQLite's OR REPLACE / OR IGNORE, and PostgreSQL's JSON and text functions.
#include "pg_metadata_store.h"

#include "pg_connection.h"
#include "pg_schema.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

uint32_t u32(const PgResult &r, int row, int column) {
    return static_cast<uint32_t>(r.integer(row, column));
}

int32_t i32(const PgResult &r, int row, int column) {
    return static_cast<int32_t>(r.integer(row, column));
}

/// The advisory lock key of a name: FNV-1a over it, as PostgreSQL's signed 64-bit key.
int64_t lock_key(const std::string &name) {
    uint64_t hash = 14695981039346656037ull;
    for (const char c : "vexo-cloud:" + name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    }
    return static_cast<int64_t>(hash);
}

constexpr char kRecordingColumns[] = "SELECT device, start_time, end_time, announced, "
                                     "payload_info, mtu, announced_md5, key, key_md5 FROM "
                                     "recordings ";

RecordingRow recording_of(const PgResult &r, int i) {
    RecordingRow row;
    row.device = r.text(i, 0);
    row.start_time = u32(r, i, 1);
    row.end_time = u32(r, i, 2);
    row.announced = r.integer(i, 3) != 0;
    row.payload_info = r.text(i, 4);
    row.mtu = i32(r, i, 5);
    row.announced_md5 = r.text(i, 6);
    row.key = r.text(i, 7);
    row.key_md5 = r.text(i, 8);
    return row;
}

constexpr char kMediaColumns[] =
    "SELECT device, start_time, name, bytes, sha256, object, stored FROM media ";

MediaRow media_of(const PgResult &r, int i) {
    MediaRow row;
    row.device = r.text(i, 0);
    row.start_time = u32(r, i, 1);
    row.name = r.text(i, 2);
    row.bytes = static_cast<uint64_t>(r.integer(i, 3));
    row.sha256 = r.text(i, 4);
    row.object = r.text(i, 5);
    row.stored = u32(r, i, 6);
    return row;
}

template <typename Row, typename Read> std::vector<Row> rows_of(const PgResult &r, Read read) {
    std::vector<Row> rows;
    rows.reserve(static_cast<size_t>(r.rows()));
    for (int i = 0; i < r.rows(); ++i) {
        rows.push_back(read(r, i));
    }
    return rows;
}

uint64_t count_of(const PgResult &r) {
    return r.rows() > 0 ? static_cast<uint64_t>(r.integer(0, 0)) : 0;
}

/// "WHERE device = $1" when device is set, else every device.
constexpr char kOfDevice[] = "WHERE (device = $1 OR $1 = '') ";

// What quarantine_damaged_rows looks for, each a condition on one table's rows.
constexpr char kBadPayload[] = "announced <> 0 AND NOT vexo_is_json_object(payload_info)";
constexpr char kBadGap[] = "from_time <= 0 OR to_time < from_time OR length(reason) NOT BETWEEN "
                           "1 AND 64 OR reason ~ '[^ -~]' OR bytes < 0";
constexpr char kBadPicture[] = "picture <> '' AND (NOT starts_with(picture, device || "
                               "'/alarms/') OR strpos(picture, '..') > 0)";

} // namespace

// ---- opening -------------------------------------------------------------------------------

PgMetadataStore::PgMetadataStore(const std::string &url)
    : db_(std::make_unique<PgConnection>(url)) {
    migrate();
}

PgMetadataStore::~PgMetadataStore() = default;

void PgMetadataStore::migrate() {
    constexpr int kLatest = kPgMigrations[std::size(kPgMigrations) - 1].version;
    transaction([this] {
        // Services starting together upgrade one after the other; the others then find
        // nothing left to do.
        db_->run("SELECT pg_advisory_xact_lock($1)", PgParams().add(lock_key("schema")));
        db_->run("CREATE TABLE IF NOT EXISTS schema_version(version INTEGER PRIMARY KEY, "
                 "applied TIMESTAMPTZ NOT NULL DEFAULT now())");
        const int64_t found =
            db_->run("SELECT coalesce(max(version), 0) FROM schema_version").integer(0, 0);
        if (found > kLatest) {
            throw StoreError("the database has schema version " + std::to_string(found) +
                             ", newer than this program's " + std::to_string(kLatest));
        }
        for (const PgMigration &migration : kPgMigrations) {
            if (migration.version > found) {
                db_->run_script(migration.sql);
                db_->run("INSERT INTO schema_version(version) VALUES($1)",
                         PgParams().add(int64_t{migration.version}));
            }
        }
    });
}

void PgMetadataStore::transaction(const std::function<void()> &work) {
    if (in_transaction_) {
        throw StoreError("transactions do not nest");
    }
    db_->run("BEGIN");
    in_transaction_ = true;
    try {
        work();
        db_->run("COMMIT");
        in_transaction_ = false;
    } catch (...) {
        in_transaction_ = false;
        try {
            db_->run("ROLLBACK");
        } catch (const StoreError &) {
            // The connection may be gone, and the transaction with it; the first failure is
            // the one to report.
        }
        throw;
    }
}

void PgMetadataStore::as_unit(const std::function<void()> &work) {
    if (in_transaction_) {
        work(); // part of the caller's unit
    } else {
        transaction(work);
    }
}

std::optional<std::string> PgMetadataStore::setting(const std::string &name) {
    const PgResult r = db_->run("SELECT value FROM settings WHERE name = $1", PgParams().add(name));
    return r.rows() > 0 ? std::optional<std::string>(r.text(0, 0)) : std::nullopt;
}

void PgMetadataStore::put_setting(const std::string &name, const std::string &value) {
    db_->run("INSERT INTO settings(name, value) VALUES($1, $2) ON CONFLICT(name) DO UPDATE SET "
             "value = EXCLUDED.value",
             PgParams().add(name).add(value));
}

// ---- leads of background jobs --------------------------------------------------------------

std::set<std::string> &PgMetadataStore::leads() {
    if (db_->reconnected()) {
        leads_.clear();
    }
    return leads_;
}

void PgMetadataStore::lock_device(const std::string &device) {
    if (!in_transaction_) {
        throw StoreError("a device's lock is taken inside a transaction");
    }
    db_->run("SELECT pg_advisory_xact_lock($1)", PgParams().add(lock_key("device:" + device)));
}

bool PgMetadataStore::try_lead(const std::string &job) {
    if (leads().count(job) > 0) {
        return true;
    }
    // A session lock: it stays across the job's transactions, and goes with the connection
    // when this service dies.
    const PgResult r =
        db_->run("SELECT pg_try_advisory_lock($1)", PgParams().add(lock_key("job:" + job)));
    if (!r.boolean(0, 0)) {
        return false;
    }
    leads().insert(job);
    return true;
}

void PgMetadataStore::end_lead(const std::string &job) {
    if (leads().erase(job) == 0) {
        return;
    }
    try {
        db_->run("SELECT pg_advisory_unlock($1)", PgParams().add(lock_key("job:" + job)));
    } catch (const StoreError &) {
        // The connection is gone, and the lock with it.
    }
}

// ---- devices -------------------------------------------------------------------------------

std::vector<std::string> PgMetadataStore::device_ids() {
    return rows_of<std::string>(db_->run("SELECT id FROM devices ORDER BY id"),
                                [](const PgResult &r, int i) { return r.text(i, 0); });
}

std::optional<DeviceState> PgMetadataStore::device(const std::string &device) {
    const PgResult r =
        db_->run("SELECT store_mode, event_duration, slice_duration, silence_interval, "
                 "daily_events, expired, aborted, key, key_md5, allowance_day, "
                 "allowance_started FROM devices WHERE id = $1",
                 PgParams().add(device));
    if (r.rows() == 0) {
        return std::nullopt;
    }
    DeviceState state;
    state.order.store_mode = r.text(0, 0);
    state.order.event_duration = i32(r, 0, 1);
    state.order.slice_duration = i32(r, 0, 2);
    state.order.silence_interval = i32(r, 0, 3);
    state.order.daily_events = i32(r, 0, 4);
    state.order.expired = r.integer(0, 5) != 0;
    state.order.aborted = r.integer(0, 6) != 0;
    state.key = r.text(0, 7);
    state.key_md5 = r.text(0, 8);
    state.allowance.day = i32(r, 0, 9);
    state.allowance.events_started = i32(r, 0, 10);
    state.key_history = rows_of<KeyRecord>(
        db_->run("SELECT key, md5, issued FROM key_history WHERE device = $1 ORDER BY seq",
                 PgParams().add(device)),
        [](const PgResult &k, int i) {
            return KeyRecord{k.text(i, 0), k.text(i, 1), u32(k, i, 2)};
        });
    return state;
}

void PgMetadataStore::put_device(const std::string &device, const DeviceState &state) {
    const Order &o = state.order;
    as_unit([&] {
        db_->run("INSERT INTO devices(id, store_mode, event_duration, slice_duration, "
                 "silence_interval, daily_events, expired, aborted, key, key_md5, "
                 "allowance_day, allowance_started) VALUES($1, $2, $3, $4, $5, $6, $7, $8, $9, "
                 "$10, $11, $12) ON CONFLICT(id) DO UPDATE SET store_mode = "
                 "EXCLUDED.store_mode, event_duration = EXCLUDED.event_duration, "
                 "slice_duration = EXCLUDED.slice_duration, silence_interval = "
                 "EXCLUDED.silence_interval, daily_events = EXCLUDED.daily_events, expired = "
                 "EXCLUDED.expired, aborted = EXCLUDED.aborted, key = EXCLUDED.key, key_md5 = "
                 "EXCLUDED.key_md5, allowance_day = EXCLUDED.allowance_day, "
                 "allowance_started = EXCLUDED.allowance_started",
                 PgParams()
                     .add(device)
                     .add(o.store_mode)
                     .add(int64_t{o.event_duration})
                     .add(int64_t{o.slice_duration})
                     .add(int64_t{o.silence_interval})
                     .add(int64_t{o.daily_events})
                     .add(int64_t{o.expired})
                     .add(int64_t{o.aborted})
                     .add(state.key)
                     .add(state.key_md5)
                     .add(int64_t{state.allowance.day})
                     .add(int64_t{state.allowance.events_started}));
        const int64_t stored = static_cast<int64_t>(count_of(db_->run(
            "SELECT count(*) FROM key_history WHERE device = $1", PgParams().add(device))));
        for (size_t i = static_cast<size_t>(stored); i < state.key_history.size(); ++i) {
            const KeyRecord &key = state.key_history[i];
            // Another service may have added the same entry meanwhile: the history only grows.
            db_->run("INSERT INTO key_history(device, seq, key, md5, issued) VALUES($1, $2, $3, "
                     "$4, $5) ON CONFLICT DO NOTHING",
                     PgParams()
                         .add(device)
                         .add(static_cast<int64_t>(i))
                         .add(key.key)
                         .add(key.md5)
                         .add(int64_t{key.issued}));
        }
    });
}

// ---- recordings and media ------------------------------------------------------------------

std::optional<RecordingRow> PgMetadataStore::recording(const std::string &device,
                                                       uint32_t start_time) {
    const PgResult r =
        db_->run(std::string(kRecordingColumns) + "WHERE device = $1 AND start_time = $2",
                 PgParams().add(device).add(int64_t{start_time}));
    return r.rows() > 0 ? std::optional<RecordingRow>(recording_of(r, 0)) : std::nullopt;
}

void PgMetadataStore::put_recording(const RecordingRow &r) {
    db_->run("INSERT INTO recordings(device, start_time, end_time, announced, payload_info, mtu, "
             "announced_md5, key, key_md5) VALUES($1, $2, $3, $4, $5, $6, $7, $8, $9) ON "
             "CONFLICT(device, start_time) DO UPDATE SET end_time = EXCLUDED.end_time, "
             "announced = EXCLUDED.announced, payload_info = EXCLUDED.payload_info, mtu = "
             "EXCLUDED.mtu, announced_md5 = EXCLUDED.announced_md5, key = EXCLUDED.key, "
             "key_md5 = EXCLUDED.key_md5",
             PgParams()
                 .add(r.device)
                 .add(int64_t{r.start_time})
                 .add(int64_t{r.end_time})
                 .add(int64_t{r.announced})
                 .add(r.payload_info)
                 .add(int64_t{r.mtu})
                 .add(r.announced_md5)
                 .add(r.key)
                 .add(r.key_md5));
}

void PgMetadataStore::remove_recording(const std::string &device, uint32_t start_time) {
    as_unit([&] {
        const PgParams params = PgParams().add(device).add(int64_t{start_time});
        db_->run("DELETE FROM media WHERE device = $1 AND start_time = $2", params);
        db_->run("DELETE FROM recordings WHERE device = $1 AND start_time = $2", params);
    });
}

std::vector<RecordingRow> PgMetadataStore::recordings(const std::string &device) {
    return rows_of<RecordingRow>(
        db_->run(std::string(kRecordingColumns) + kOfDevice + "ORDER BY device, start_time",
                 PgParams().add(device)),
        recording_of);
}

std::optional<MediaRow> PgMetadataStore::media(const std::string &device, const std::string &name) {
    const PgResult r = db_->run(std::string(kMediaColumns) + "WHERE device = $1 AND name = $2",
                                PgParams().add(device).add(name));
    return r.rows() > 0 ? std::optional<MediaRow>(media_of(r, 0)) : std::nullopt;
}

void PgMetadataStore::put_media(const MediaRow &m) {
    db_->run("INSERT INTO media(device, name, start_time, bytes, sha256, object, stored) "
             "VALUES($1, $2, $3, $4, $5, $6, $7) ON CONFLICT(device, name) DO UPDATE SET "
             "start_time = EXCLUDED.start_time, bytes = EXCLUDED.bytes, sha256 = "
             "EXCLUDED.sha256, object = EXCLUDED.object, stored = EXCLUDED.stored",
             PgParams()
                 .add(m.device)
                 .add(m.name)
                 .add(int64_t{m.start_time})
                 .add(static_cast<int64_t>(m.bytes))
                 .add(m.sha256)
                 .add(m.object)
                 .add(int64_t{m.stored}));
}

void PgMetadataStore::remove_media(const std::string &device, const std::string &name) {
    db_->run("DELETE FROM media WHERE device = $1 AND name = $2", PgParams().add(device).add(name));
}

std::vector<MediaRow> PgMetadataStore::media_files(const std::string &device) {
    return rows_of<MediaRow>(
        db_->run(std::string(kMediaColumns) + kOfDevice + "ORDER BY device, name",
                 PgParams().add(device)),
        media_of);
}

std::vector<MediaRow> PgMetadataStore::recording_media(const std::string &device,
                                                       uint32_t start_time) {
    return rows_of<MediaRow>(
        db_->run(std::string(kMediaColumns) + "WHERE device = $1 AND start_time = $2 ORDER BY name",
                 PgParams().add(device).add(int64_t{start_time})),
        media_of);
}

// ---- alarms, gaps, events ------------------------------------------------------------------

int64_t PgMetadataStore::next_alarm_id() {
    return db_->run("SELECT nextval('alarm_ids')").integer(0, 0);
}

void PgMetadataStore::add_alarm(const AlarmRow &a) {
    as_unit([&] {
        db_->run("INSERT INTO alarms(id, device, time, with_picture, extra, picture, received) "
                 "VALUES($1, $2, $3, $4, $5, $6, $7)",
                 PgParams()
                     .add(a.id)
                     .add(a.device)
                     .add(int64_t{a.time})
                     .add(int64_t{a.with_picture})
                     .add(a.extra)
                     .add(a.picture_object)
                     .add(int64_t{a.received}));
        // An id next_alarm_id did not hand out (e.g. an alarm copied from another store)
        // moves the sequence past it, so that it is never handed out again.
        db_->run("SELECT setval('alarm_ids', $1) FROM alarm_ids WHERE CASE WHEN is_called THEN "
                 "last_value ELSE last_value - 1 END < $1",
                 PgParams().add(a.id));
    });
}

std::vector<AlarmRow> PgMetadataStore::alarms(const std::string &device) {
    return rows_of<AlarmRow>(
        db_->run("SELECT id, device, time, with_picture, extra, picture, received FROM alarms "
                 "WHERE device = $1 ORDER BY time, id",
                 PgParams().add(device)),
        [](const PgResult &r, int i) {
            return AlarmRow{r.integer(i, 0), r.text(i, 1), u32(r, i, 2), r.integer(i, 3) != 0,
                            r.text(i, 4),    r.text(i, 5), u32(r, i, 6)};
        });
}

void PgMetadataStore::remove_alarm(int64_t id) {
    db_->run("DELETE FROM alarms WHERE id = $1", PgParams().add(id));
}

bool PgMetadataStore::add_gap(const Gap &g) {
    return db_->run("INSERT INTO gaps(device, from_time, to_time, reason, bytes) VALUES($1, $2, "
                    "$3, $4, $5) ON CONFLICT DO NOTHING",
                    PgParams()
                        .add(g.device)
                        .add(int64_t{g.from})
                        .add(int64_t{g.to})
                        .add(g.reason)
                        .add(static_cast<int64_t>(g.bytes)))
               .changed() > 0;
}

std::vector<Gap> PgMetadataStore::gaps(const std::string &device) {
    return rows_of<Gap>(db_->run("SELECT device, from_time, to_time, reason, bytes FROM gaps " +
                                     std::string(kOfDevice) +
                                     "ORDER BY device, from_time, to_time, reason, bytes",
                                 PgParams().add(device)),
                        [](const PgResult &r, int i) {
                            return Gap{r.text(i, 0), u32(r, i, 1), u32(r, i, 2), r.text(i, 3),
                                       static_cast<uint64_t>(r.integer(i, 4))};
                        });
}

void PgMetadataStore::add_event(const std::string &device, uint32_t received,
                                const std::string &json) {
    db_->run("INSERT INTO events(device, received, body) VALUES($1, $2, $3)",
             PgParams().add(device).add(int64_t{received}).add(json));
}

std::vector<std::string> PgMetadataStore::events(const std::string &device) {
    return rows_of<std::string>(
        db_->run("SELECT body FROM events WHERE device = $1 ORDER BY id", PgParams().add(device)),
        [](const PgResult &r, int i) { return r.text(i, 0); });
}

// ---- limits and usage ----------------------------------------------------------------------

DeviceLimits PgMetadataStore::limits(const std::string &device) {
    const PgResult r = db_->run("SELECT max_bytes, max_files, max_alarms_per_day, "
                                "retention_days, retention_bytes FROM device_limits WHERE "
                                "device = $1",
                                PgParams().add(device));
    DeviceLimits limits;
    if (r.rows() > 0) {
        limits.max_bytes = r.optional_integer(0, 0);
        limits.max_files = r.optional_integer(0, 1);
        if (const auto alarms = r.optional_integer(0, 2)) {
            limits.max_alarms_per_day = static_cast<uint32_t>(*alarms);
        }
        if (const auto days = r.optional_integer(0, 3)) {
            limits.retention_days = static_cast<uint32_t>(*days);
        }
        limits.retention_bytes = r.optional_integer(0, 4);
    }
    return limits;
}

void PgMetadataStore::put_limits(const std::string &device, const DeviceLimits &limits) {
    auto widen = [](const std::optional<uint32_t> &value) {
        return value ? std::optional<uint64_t>(*value) : std::nullopt;
    };
    db_->run("INSERT INTO device_limits(device, max_bytes, max_files, max_alarms_per_day, "
             "retention_days, retention_bytes) VALUES($1, $2, $3, $4, $5, $6) ON "
             "CONFLICT(device) DO UPDATE SET max_bytes = EXCLUDED.max_bytes, max_files = "
             "EXCLUDED.max_files, max_alarms_per_day = EXCLUDED.max_alarms_per_day, "
             "retention_days = EXCLUDED.retention_days, retention_bytes = "
             "EXCLUDED.retention_bytes",
             PgParams()
                 .add(device)
                 .add(limits.max_bytes)
                 .add(limits.max_files)
                 .add(widen(limits.max_alarms_per_day))
                 .add(widen(limits.retention_days))
                 .add(limits.retention_bytes));
}

DeviceUsage PgMetadataStore::usage(const std::string &device) {
    const PgResult r =
        db_->run("SELECT coalesce(sum(bytes), 0), count(*) FROM media WHERE device = $1",
                 PgParams().add(device));
    DeviceUsage usage;
    if (r.rows() > 0) {
        usage.bytes = static_cast<uint64_t>(r.integer(0, 0));
        usage.files = static_cast<uint64_t>(r.integer(0, 1));
    }
    return usage;
}

uint64_t PgMetadataStore::device_count() {
    return count_of(db_->run("SELECT count(*) FROM devices"));
}

uint64_t PgMetadataStore::open_recording_count() {
    return count_of(
        db_->run("SELECT count(*) FROM recordings WHERE end_time = 0 AND announced <> 0"));
}

uint64_t PgMetadataStore::alarm_count(const std::string &device, uint32_t from, uint32_t to) {
    return count_of(
        db_->run("SELECT count(*) FROM alarms WHERE device = $1 AND time >= $2 AND time < $3",
                 PgParams().add(device).add(int64_t{from}).add(int64_t{to})));
}

std::vector<RecordingUsage> PgMetadataStore::oldest_recordings(const std::string &device,
                                                               size_t limit) {
    return rows_of<RecordingUsage>(
        db_->run("SELECT r.start_time, r.end_time, coalesce(sum(m.bytes), 0), count(m.name) "
                 "FROM recordings r LEFT JOIN media m ON m.device = r.device AND m.start_time = "
                 "r.start_time WHERE r.device = $1 GROUP BY r.device, r.start_time ORDER BY "
                 "r.start_time LIMIT $2",
                 PgParams().add(device).add(static_cast<int64_t>(limit))),
        [](const PgResult &r, int i) {
            return RecordingUsage{u32(r, i, 0), u32(r, i, 1),
                                  static_cast<uint64_t>(r.integer(i, 2)),
                                  static_cast<uint64_t>(r.integer(i, 3))};
        });
}

// ---- quarantine ----------------------------------------------------------------------------

void PgMetadataStore::quarantine(const QuarantineRow &r) {
    db_->run("INSERT INTO quarantine(kind, device, start_time, item, reason, content, at) "
             "VALUES($1, $2, $3, $4, $5, $6, $7)",
             PgParams()
                 .add(r.kind)
                 .add(r.device)
                 .add(int64_t{r.start_time})
                 .add(r.item)
                 .add(r.reason)
                 .add(r.content)
                 .add(int64_t{r.at}));
}

namespace {

QuarantineRow quarantine_of(const PgResult &r, int i) {
    return QuarantineRow{r.integer(i, 0), r.text(i, 1), r.text(i, 2), u32(r, i, 3),
                         r.text(i, 4),    r.text(i, 5), r.text(i, 6), u32(r, i, 7)};
}

constexpr char kQuarantineColumns[] = "id, kind, device, start_time, item, reason, content, at";

} // namespace

std::vector<QuarantineRow> PgMetadataStore::quarantined() {
    return rows_of<QuarantineRow>(
        db_->run(std::string("SELECT ") + kQuarantineColumns + " FROM quarantine ORDER BY id"),
        quarantine_of);
}

std::vector<QuarantineRow> PgMetadataStore::quarantine_damaged_rows(uint32_t at) {
    std::vector<QuarantineRow> moved;
    const PgParams params = PgParams().add(int64_t{at});
    const auto move = [&](const std::string &sql) {
        for (QuarantineRow &row : rows_of<QuarantineRow>(
                 db_->run(sql + " RETURNING " + kQuarantineColumns, params), quarantine_of)) {
            moved.push_back(std::move(row));
        }
    };
    as_unit([&] {
        // A recording keeps its row, key and media files: only what does not read back
        // goes, and the recording is listed as one without a start notification.
        move(std::string("INSERT INTO quarantine(kind, device, start_time, item, reason, "
                         "content, at) SELECT 'recording', device, start_time, 'recording row', "
                         "'payloadInfo is not a JSON object', json_build_object('endTime', "
                         "end_time, 'payloadInfo', payload_info, 'mtu', mtu, 'enKeyMd5', "
                         "announced_md5)::text, $1 FROM recordings WHERE ") +
             kBadPayload + " ORDER BY device, start_time");
        db_->run(std::string("UPDATE recordings SET announced = 0, payload_info = '', mtu = 0, "
                             "announced_md5 = '' WHERE ") +
                 kBadPayload);
        move(std::string("INSERT INTO quarantine(kind, device, start_time, item, reason, "
                         "content, at) SELECT 'gap', device, 0, 'gap row', 'not a gap', "
                         "json_build_object('from', from_time, 'to', to_time, 'reason', reason, "
                         "'bytes', bytes)::text, $1 FROM gaps WHERE ") +
             kBadGap + " ORDER BY device, from_time");
        db_->run(std::string("DELETE FROM gaps WHERE ") + kBadGap);
        move(std::string("INSERT INTO quarantine(kind, device, start_time, item, reason, "
                         "content, at) SELECT 'alarm', device, 0, 'alarm ' || id, 'bad picture "
                         "name', json_build_object('time', time, 'withPicture', with_picture, "
                         "'extra', extra, 'picture', picture)::text, $1 FROM alarms WHERE ") +
             kBadPicture + " ORDER BY id");
        db_->run(std::string("DELETE FROM alarms WHERE ") + kBadPicture);
    });
    return moved;
}

} // namespace vexo_cloud

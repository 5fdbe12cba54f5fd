/// The metadata database's tables on PostgreSQL, as a list of migrations: each brings the
/// schema from the version before it to its own, and the table schema_version lists those
/// applied. The tables are those of the SQLite store, with 64-bit integers for its INTEGER.
#ifndef VEXO_CLOUD_PG_SCHEMA_H
#define VEXO_CLOUD_PG_SCHEMA_H

namespace vexo_cloud {

struct PgMigration {
    int version;
    const char *sql;
};

/// Version 1: the tables, the alarm id sequence (ids several services hand out at once
/// never collide) and the JSON check quarantine_damaged_rows uses.
constexpr char kPgSchemaV1[] = R"sql(
CREATE TABLE settings(
    name TEXT PRIMARY KEY,
    value TEXT NOT NULL);
CREATE TABLE devices(
    id TEXT PRIMARY KEY,
    store_mode TEXT NOT NULL,
    event_duration BIGINT NOT NULL,
    slice_duration BIGINT NOT NULL,
    silence_interval BIGINT NOT NULL,
    daily_events BIGINT NOT NULL,
    expired BIGINT NOT NULL,
    aborted BIGINT NOT NULL,
    key TEXT NOT NULL,
    key_md5 TEXT NOT NULL,
    allowance_day BIGINT NOT NULL,
    allowance_started BIGINT NOT NULL);
CREATE TABLE key_history(
    device TEXT NOT NULL,
    seq BIGINT NOT NULL,
    key TEXT NOT NULL,
    md5 TEXT NOT NULL,
    issued BIGINT NOT NULL,
    PRIMARY KEY(device, seq));
CREATE TABLE recordings(
    device TEXT NOT NULL,
    start_time BIGINT NOT NULL,
    end_time BIGINT NOT NULL,
    announced BIGINT NOT NULL,
    payload_info TEXT NOT NULL,
    mtu BIGINT NOT NULL,
    announced_md5 TEXT NOT NULL,
    key TEXT NOT NULL,
    key_md5 TEXT NOT NULL,
    PRIMARY KEY(device, start_time));
CREATE TABLE media(
    device TEXT NOT NULL,
    name TEXT NOT NULL,
    start_time BIGINT NOT NULL,
    bytes BIGINT NOT NULL,
    sha256 TEXT NOT NULL,
    object TEXT NOT NULL,
    stored BIGINT NOT NULL,
    PRIMARY KEY(device, name));
CREATE INDEX media_by_recording ON media(device, start_time);
CREATE SEQUENCE alarm_ids;
CREATE TABLE alarms(
    id BIGINT PRIMARY KEY,
    device TEXT NOT NULL,
    time BIGINT NOT NULL,
    with_picture BIGINT NOT NULL,
    extra TEXT NOT NULL,
    picture TEXT NOT NULL,
    received BIGINT NOT NULL);
CREATE INDEX alarms_by_time ON alarms(device, time);
CREATE TABLE gaps(
    device TEXT NOT NULL,
    from_time BIGINT NOT NULL,
    to_time BIGINT NOT NULL,
    reason TEXT NOT NULL,
    bytes BIGINT NOT NULL,
    PRIMARY KEY(device, from_time, to_time, reason, bytes));
CREATE TABLE events(
    id BIGSERIAL PRIMARY KEY,
    device TEXT NOT NULL,
    received BIGINT NOT NULL,
    body TEXT NOT NULL);
CREATE INDEX events_by_device ON events(device, id);
CREATE TABLE device_limits(
    device TEXT PRIMARY KEY,
    max_bytes BIGINT,
    max_files BIGINT,
    max_alarms_per_day BIGINT,
    retention_days BIGINT,
    retention_bytes BIGINT);
CREATE TABLE quarantine(
    id BIGSERIAL PRIMARY KEY,
    kind TEXT NOT NULL,
    device TEXT NOT NULL,
    start_time BIGINT NOT NULL,
    item TEXT NOT NULL,
    reason TEXT NOT NULL,
    content TEXT NOT NULL,
    at BIGINT NOT NULL);
CREATE FUNCTION vexo_is_json_object(value TEXT) RETURNS BOOLEAN
    LANGUAGE plpgsql IMMUTABLE AS $$
BEGIN
    RETURN json_typeof(value::json) = 'object';
EXCEPTION WHEN others THEN
    RETURN FALSE;
END $$;
)sql";

/// Oldest first; a database is brought up to the last one at open.
constexpr PgMigration kPgMigrations[] = {{1, kPgSchemaV1}};

} // namespace vexo_cloud

#endif

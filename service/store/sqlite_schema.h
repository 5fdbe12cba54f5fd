/// The metadata database's tables, by schema version.
#ifndef VEXO_CLOUD_SQLITE_SCHEMA_H
#define VEXO_CLOUD_SQLITE_SCHEMA_H

namespace vexo_cloud {

/// The version this program writes (PRAGMA user_version); a database of a later version is
/// refused, an earlier one upgraded at open.
constexpr int kSchemaVersion = 1;

/// Version 1: everything below, created in one transaction.
constexpr char kSchemaV1[] = R"sql(
CREATE TABLE settings(
    name TEXT PRIMARY KEY,
    value TEXT NOT NULL);
CREATE TABLE devices(
    id TEXT PRIMARY KEY,
    store_mode TEXT NOT NULL,
    event_duration INTEGER NOT NULL,
    slice_duration INTEGER NOT NULL,
    silence_interval INTEGER NOT NULL,
    daily_events INTEGER NOT NULL,
    expired INTEGER NOT NULL,
    aborted INTEGER NOT NULL,
    key TEXT NOT NULL,
    key_md5 TEXT NOT NULL,
    allowance_day INTEGER NOT NULL,
    allowance_started INTEGER NOT NULL);
CREATE TABLE key_history(
    device TEXT NOT NULL,
    seq INTEGER NOT NULL,
    key TEXT NOT NULL,
    md5 TEXT NOT NULL,
    issued INTEGER NOT NULL,
    PRIMARY KEY(device, seq));
CREATE TABLE recordings(
    device TEXT NOT NULL,
    start_time INTEGER NOT NULL,
    end_time INTEGER NOT NULL,
    announced INTEGER NOT NULL,
    payload_info TEXT NOT NULL,
    mtu INTEGER NOT NULL,
    announced_md5 TEXT NOT NULL,
    key TEXT NOT NULL,
    key_md5 TEXT NOT NULL,
    PRIMARY KEY(device, start_time));
CREATE TABLE media(
    device TEXT NOT NULL,
    name TEXT NOT NULL,
    start_time INTEGER NOT NULL,
    bytes INTEGER NOT NULL,
    sha256 TEXT NOT NULL,
    object TEXT NOT NULL,
    stored INTEGER NOT NULL,
    PRIMARY KEY(device, name));
CREATE INDEX media_by_recording ON media(device, start_time);
CREATE TABLE alarms(
    id INTEGER PRIMARY KEY,
    device TEXT NOT NULL,
    time INTEGER NOT NULL,
    with_picture INTEGER NOT NULL,
    extra TEXT NOT NULL,
    picture TEXT NOT NULL,
    received INTEGER NOT NULL);
CREATE INDEX alarms_by_time ON alarms(device, time);
CREATE TABLE gaps(
    device TEXT NOT NULL,
    from_time INTEGER NOT NULL,
    to_time INTEGER NOT NULL,
    reason TEXT NOT NULL,
    bytes INTEGER NOT NULL,
    PRIMARY KEY(device, from_time, to_time, reason, bytes));
CREATE TABLE events(
    id INTEGER PRIMARY KEY,
    device TEXT NOT NULL,
    received INTEGER NOT NULL,
    body TEXT NOT NULL);
CREATE INDEX events_by_device ON events(device, id);
CREATE TABLE device_limits(
    device TEXT PRIMARY KEY,
    max_bytes INTEGER,
    max_files INTEGER,
    max_alarms_per_day INTEGER,
    retention_days INTEGER,
    retention_bytes INTEGER);
CREATE TABLE quarantine(
    id INTEGER PRIMARY KEY,
    kind TEXT NOT NULL,
    device TEXT NOT NULL,
    start_time INTEGER NOT NULL,
    item TEXT NOT NULL,
    reason TEXT NOT NULL,
    content TEXT NOT NULL,
    at INTEGER NOT NULL);
)sql";

} // namespace vexo_cloud

#endif

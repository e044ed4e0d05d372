-- A fresh settings database at schema version 8, as the release before the
-- cloud view shipped it. Only a package built with ORKAD_DB_VERSION=8 carries
-- it (as db-create-tables.sql); the upgrade test checks that it and
-- db-migrate-tables-9.sql make what db-create-tables.sql makes.
.bail on
BEGIN;
CREATE TABLE system (key TEXT UNIQUE, value TEXT);
INSERT INTO system (key, value) VALUES ('db.version', '8');
CREATE TABLE interface (name TEXT PRIMARY KEY, description TEXT, enabled INTEGER NOT NULL DEFAULT 1, speed TEXT DEFAULT 'auto');
CREATE TABLE vlan (id INTEGER PRIMARY KEY, name TEXT);
CREATE TABLE vlan_member (vlan INTEGER NOT NULL, interface TEXT NOT NULL, tagged INTEGER NOT NULL DEFAULT 0, UNIQUE (vlan, interface));
CREATE TABLE event (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, text TEXT);
CREATE INDEX event_time ON event (time);
COMMIT;

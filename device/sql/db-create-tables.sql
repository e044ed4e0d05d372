-- A fresh settings database at schema version 9. Keep it equal to what the
-- migration scripts make of an older database.
.bail on
BEGIN;
CREATE TABLE system (key TEXT UNIQUE, value TEXT);
INSERT INTO system (key, value) VALUES ('db.version', '9');
CREATE TABLE interface (name TEXT PRIMARY KEY, description TEXT, enabled INTEGER NOT NULL DEFAULT 1, speed TEXT DEFAULT 'auto');
CREATE TABLE vlan (id INTEGER PRIMARY KEY, name TEXT);
CREATE TABLE vlan_member (vlan INTEGER NOT NULL, interface TEXT NOT NULL, tagged INTEGER NOT NULL DEFAULT 0, UNIQUE (vlan, interface));
CREATE TABLE event (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, text TEXT);
CREATE INDEX event_time ON event (time);
CREATE VIEW cloud AS SELECT key, value FROM system WHERE key LIKE 'system.cloud-%';
COMMIT;

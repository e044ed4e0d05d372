-- Version 5 to 6: a journal of configuration events.
.bail on
BEGIN;
CREATE TABLE event (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, text TEXT);
UPDATE system SET value = '6' WHERE key = 'db.version';
COMMIT;

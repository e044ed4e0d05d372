-- Version 1 to 2: per-interface settings.
.bail on
BEGIN;
CREATE TABLE interface (name TEXT PRIMARY KEY, description TEXT);
UPDATE system SET value = '2' WHERE key = 'db.version';
COMMIT;

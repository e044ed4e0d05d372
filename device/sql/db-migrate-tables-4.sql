-- Version 3 to 4: VLAN names.
.bail on
BEGIN;
CREATE TABLE vlan (id INTEGER PRIMARY KEY, name TEXT);
UPDATE system SET value = '4' WHERE key = 'db.version';
COMMIT;

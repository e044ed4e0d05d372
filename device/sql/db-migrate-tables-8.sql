-- Version 7 to 8: interface speed setting.
.bail on
BEGIN;
ALTER TABLE interface ADD COLUMN speed TEXT DEFAULT 'auto';
UPDATE system SET value = '8' WHERE key = 'db.version';
COMMIT;

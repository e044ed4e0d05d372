-- Version 2 to 3: interfaces can be switched off.
.bail on
BEGIN;
ALTER TABLE interface ADD COLUMN enabled INTEGER NOT NULL DEFAULT 1;
UPDATE system SET value = '3' WHERE key = 'db.version';
COMMIT;

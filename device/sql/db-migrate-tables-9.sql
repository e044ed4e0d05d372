-- Version 8 to 9: a view of the cloud connection settings.
.bail on
BEGIN;
CREATE VIEW cloud AS SELECT key, value FROM system WHERE key LIKE 'system.cloud-%';
UPDATE system SET value = '9' WHERE key = 'db.version';
COMMIT;

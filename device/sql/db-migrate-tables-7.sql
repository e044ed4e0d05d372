-- Version 6 to 7: the event journal is read by time.
.bail on
BEGIN;
CREATE INDEX event_time ON event (time);
UPDATE system SET value = '7' WHERE key = 'db.version';
COMMIT;

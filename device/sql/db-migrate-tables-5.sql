-- Version 4 to 5: VLAN membership of interfaces.
.bail on
BEGIN;
CREATE TABLE vlan_member (vlan INTEGER NOT NULL, interface TEXT NOT NULL, tagged INTEGER NOT NULL DEFAULT 0, UNIQUE (vlan, interface));
UPDATE system SET value = '5' WHERE key = 'db.version';
COMMIT;

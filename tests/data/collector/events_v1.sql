-- The events table as the first collector made it (no refusal or user columns), with one event.
CREATE TABLE events (id INTEGER PRIMARY KEY AUTOINCREMENT, received_at TEXT NOT NULL,
  action_type TEXT NOT NULL, action_name TEXT NOT NULL, action_kind TEXT NOT NULL,
  page TEXT NOT NULL, cid TEXT NOT NULL, did TEXT NOT NULL, sid TEXT NOT NULL, json TEXT NOT NULL);
INSERT INTO events VALUES (1, '2024-01-01T00:00:00.000Z', 'event', 'old', 'tap', '', 'c', 'd', 's', '{}');

-- What was published on the nodes of the publish-subscribe component. The nodes themselves stand in pubsub.db; a
-- row here is as good as gone when its node is.
--
-- May be run again on a database that has the tables: nothing is changed then.

BEGIN IMMEDIATE;

CREATE TABLE IF NOT EXISTS publishers (
  publisher_id INTEGER PRIMARY KEY,
  jid TEXT NOT NULL UNIQUE
);

CREATE TABLE IF NOT EXISTS items (
  item_id INTEGER PRIMARY KEY,
  service TEXT NOT NULL DEFAULT '',
  node TEXT NOT NULL,
  item TEXT NOT NULL,
  publisher_id INTEGER REFERENCES publishers (publisher_id) ON DELETE SET NULL,
  payload BLOB,
  published TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')),
  UNIQUE (service, node, item)
);
-- The newest items of a node, and those of a publisher.
CREATE INDEX IF NOT EXISTS items_by_date ON items (service, node, published, item_id);
CREATE INDEX IF NOT EXISTS items_by_publisher ON items (publisher_id);

PRAGMA user_version = 1;

COMMIT;

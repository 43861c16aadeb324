-- What the publish-subscribe component knows of its nodes: who they belong to, how they are configured, who may do
-- what with them and who is told of what is published. What is published stands in items.db.
--
-- May be run again on a database that has the tables: nothing is changed then.

BEGIN IMMEDIATE;

CREATE TABLE IF NOT EXISTS nodes (
  node_id INTEGER PRIMARY KEY,
  service TEXT NOT NULL DEFAULT '',
  node TEXT NOT NULL,
  node_type TEXT NOT NULL DEFAULT 'leaf' CHECK (node_type IN ('leaf', 'collection')),
  parent_id INTEGER REFERENCES nodes (node_id) ON DELETE SET NULL,
  creator TEXT,
  created TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')),
  UNIQUE (service, node)
);
CREATE INDEX IF NOT EXISTS nodes_by_parent ON nodes (parent_id);

-- One row for each field of a node's configuration that differs from the component's defaults.
CREATE TABLE IF NOT EXISTS node_configuration (
  node_id INTEGER NOT NULL REFERENCES nodes (node_id) ON DELETE CASCADE,
  field TEXT NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY (node_id, field)
) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS entities (
  entity_id INTEGER PRIMARY KEY,
  jid TEXT NOT NULL UNIQUE
);

CREATE TABLE IF NOT EXISTS affiliations (
  node_id INTEGER NOT NULL REFERENCES nodes (node_id) ON DELETE CASCADE,
  entity_id INTEGER NOT NULL REFERENCES entities (entity_id) ON DELETE CASCADE,
  affiliation TEXT NOT NULL
    CHECK (affiliation IN ('owner', 'publisher', 'publish-only', 'member', 'none', 'outcast')),
  PRIMARY KEY (node_id, entity_id)
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS affiliations_by_entity ON affiliations (entity_id);

-- An entity may subscribe with several resources; the empty one stands for the bare address.
CREATE TABLE IF NOT EXISTS subscriptions (
  subscription_id INTEGER PRIMARY KEY,
  node_id INTEGER NOT NULL REFERENCES nodes (node_id) ON DELETE CASCADE,
  entity_id INTEGER NOT NULL REFERENCES entities (entity_id) ON DELETE CASCADE,
  resource TEXT NOT NULL DEFAULT '',
  state TEXT NOT NULL DEFAULT 'subscribed' CHECK (state IN ('subscribed', 'pending', 'unconfigured')),
  subscribed TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')),
  expires TEXT,
  UNIQUE (node_id, entity_id, resource)
);
CREATE INDEX IF NOT EXISTS subscriptions_by_entity ON subscriptions (entity_id);

CREATE TABLE IF NOT EXISTS subscription_options (
  subscription_id INTEGER NOT NULL REFERENCES subscriptions (subscription_id) ON DELETE CASCADE,
  field TEXT NOT NULL,
  value TEXT NOT NULL,
  PRIMARY KEY (subscription_id, field)
) WITHOUT ROWID;

PRAGMA user_version = 1;

COMMIT;

-- A store as version 1 of the schema left it.
PRAGMA journal_mode=WAL;
BEGIN;
CREATE TABLE schema_migrations(version INTEGER PRIMARY KEY);
CREATE TABLE command_usage(id TEXT PRIMARY KEY, count INTEGER NOT NULL DEFAULT 0, last_used REAL NOT NULL);
CREATE TABLE clipboard_history(id TEXT PRIMARY KEY, content TEXT NOT NULL UNIQUE, kind TEXT NOT NULL, created_at REAL NOT NULL, source_app TEXT);
CREATE INDEX clipboard_date ON clipboard_history(created_at DESC);
CREATE TABLE settings(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE quicklinks(id TEXT PRIMARY KEY, title TEXT NOT NULL, url_template TEXT NOT NULL);
CREATE TABLE extensions(id TEXT PRIMARY KEY, manifest TEXT NOT NULL, enabled INTEGER NOT NULL DEFAULT 0);
CREATE TABLE agents(id TEXT PRIMARY KEY, configuration TEXT NOT NULL);
CREATE TABLE skills(id TEXT PRIMARY KEY, name TEXT NOT NULL, path TEXT NOT NULL, description TEXT NOT NULL);
CREATE TABLE mcp_servers(id TEXT PRIMARY KEY, configuration TEXT NOT NULL);
CREATE TABLE conversations(id TEXT PRIMARY KEY, messages TEXT NOT NULL, updated_at REAL NOT NULL);
INSERT INTO schema_migrations VALUES(1);
INSERT INTO command_usage VALUES('app:org.gnome.Calculator', 3, 1699999000.5);
INSERT INTO command_usage VALUES('file:/home/ada/Ledger.pdf', 1, 1699990000.0);
INSERT INTO clipboard_history VALUES('c1', 'two
lines', 'text', 1699999999.25, 'org.gnome.Terminal');
INSERT INTO clipboard_history VALUES('c2', 'without a source', 'text', 1699999998.0, NULL);
INSERT INTO settings VALUES('preferences', '{"language":"en"}');
INSERT INTO quicklinks VALUES('q1', 'Maps', 'https://maps.example/?q={query}');
INSERT INTO agents VALUES('a1', '{"name":"Scribe"}');
INSERT INTO mcp_servers VALUES('m1', '{"command":"notes-server"}');
INSERT INTO conversations VALUES('v1', '[]', 1699990001.0);
PRAGMA user_version=1;
COMMIT;

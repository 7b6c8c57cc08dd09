-- Writes a master's tasks from its embedded database as statements for PostgreSQL, where the master
-- has made its tables already. docs/master.md tells how: sqlite3 tasks.db < this > tasks.sql
.bail on
.mode list
.headers off
-- Whatever the terminal and the server are set to: this is how texts are written below.
SELECT 'SET client_encoding = ''UTF8''; SET standard_conforming_strings = on;';
BEGIN;

SELECT format('DO $check$ BEGIN
  IF %d <> 1 OR (SELECT MAX(version) FROM schema_version) <> 1 THEN
    RAISE EXCEPTION ''this is for databases of schema version 1'';
  END IF;
END $check$;', MAX(version)) FROM schema_version;

SELECT format('INSERT INTO tasks (id, state, created_ms, changed_ms, closed_ms, text_bytes,
  requester_key, priority_key, device_key, name, priority, requester, language, user_email,
  user_domain, user_login, device_guid, agent, console_user, description) OVERRIDING SYSTEM VALUE
  VALUES (%d,%Q,%d,%d,%d,%d,%d,%d,%d,%Q,%Q,%Q,%Q,%Q,%Q,%Q,%Q,%Q,%Q,%Q);',
  id, state, created_ms, changed_ms, closed_ms, text_bytes, requester_key, priority_key,
  device_key, name, priority, requester, language, user_email, user_domain, user_login,
  device_guid, agent, console_user, description) FROM tasks ORDER BY id;

SELECT format('INSERT INTO notes (id, task_id, created_ms, text_bytes, author, text)
  OVERRIDING SYSTEM VALUE VALUES (%d,%d,%d,%d,%Q,%Q);',
  id, task_id, created_ms, text_bytes, author, text) FROM notes ORDER BY id;

-- Numbers go on where they were: none is given twice.
SELECT format('DO $go$ BEGIN PERFORM setval(pg_get_serial_sequence(%Q, ''id''), %d); END $go$;',
  name, seq)
  FROM sqlite_sequence WHERE name IN ('tasks', 'notes') AND seq > 0;
COMMIT;

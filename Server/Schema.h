// The tables of the store and the questions that the page asks of them. The page's JSON is built by SQLite
// itself, so that a column is named once.
#pragma once

namespace LocalControlPlane {

inline constexpr int schemaVersion = 1;

// Times are UTC with milliseconds; "at" is when a row arrived. What the agent sent is kept whole, as JSON,
// beside the columns that are asked for by name.
inline constexpr char schema[] = R"(
  CREATE TABLE IF NOT EXISTS settings (name TEXT PRIMARY KEY, value TEXT NOT NULL);
  CREATE TABLE IF NOT EXISTS runs (
    id TEXT PRIMARY KEY, workflow_id TEXT NOT NULL, agent TEXT NOT NULL, slug TEXT NOT NULL, workflow TEXT NOT NULL,
    session TEXT NOT NULL DEFAULT '', day TEXT, started_at TEXT NOT NULL, completed_at TEXT, status TEXT NOT NULL,
    error TEXT NOT NULL DEFAULT '', inputs TEXT NOT NULL DEFAULT '{}', metadata TEXT NOT NULL DEFAULT '{}',
    result TEXT NOT NULL DEFAULT '{}', UNIQUE (slug, agent, day));
  CREATE TABLE IF NOT EXISTS steps (
    id INTEGER PRIMARY KEY, run TEXT NOT NULL REFERENCES runs (id), at TEXT NOT NULL, position INTEGER NOT NULL,
    name TEXT NOT NULL, kind TEXT NOT NULL, action TEXT NOT NULL, output TEXT NOT NULL, hardware TEXT NOT NULL);
  CREATE INDEX IF NOT EXISTS steps_of_run ON steps (run, kind, action);
  CREATE INDEX IF NOT EXISTS steps_of_kind ON steps (kind, action);
  CREATE TABLE IF NOT EXISTS spans (
    id INTEGER PRIMARY KEY, run TEXT NOT NULL REFERENCES runs (id), at TEXT NOT NULL, name TEXT NOT NULL,
    kind TEXT NOT NULL, status TEXT NOT NULL, start_time TEXT NOT NULL, end_time TEXT NOT NULL, span TEXT NOT NULL);
  CREATE INDEX IF NOT EXISTS spans_of_run ON spans (run);
  CREATE TABLE IF NOT EXISTS calls (
    id INTEGER PRIMARY KEY, run TEXT NOT NULL REFERENCES runs (id), at TEXT NOT NULL, day TEXT NOT NULL,
    model TEXT NOT NULL, tokens_in INTEGER NOT NULL, tokens_out INTEGER NOT NULL, cost REAL NOT NULL,
    call TEXT NOT NULL);
  CREATE INDEX IF NOT EXISTS calls_of_run ON calls (run, tokens_in, tokens_out, cost);
  CREATE TABLE IF NOT EXISTS decisions (
    id INTEGER PRIMARY KEY, run TEXT NOT NULL, at TEXT NOT NULL, workflow TEXT NOT NULL, action TEXT NOT NULL,
    reason TEXT NOT NULL);
  CREATE INDEX IF NOT EXISTS decisions_of_run ON decisions (run, action);
  PRAGMA user_version = 1;
)";

// 1: the run.
inline constexpr char tokensQuery[] = R"(
  SELECT (SELECT coalesce(sum(tokens_in + tokens_out), 0) FROM calls WHERE run = ?1)
       + coalesce((SELECT iif(json_type(output, '$.pre_tokens') IN ('integer', 'real'),
                              json_extract(output, '$.pre_tokens'), 0)
                   FROM steps WHERE run = ?1 AND kind = 'pre_compact' ORDER BY id DESC LIMIT 1), 0)
)";

// 1: how many runs at most.
inline constexpr char overviewQuery[] = R"(
  SELECT json_object(
    'runs', (SELECT json_group_array(json(run)) FROM (
      SELECT json_object(
        'id', id, 'agent', agent, 'slug', slug, 'workflow', workflow, 'session', session, 'day', day,
        'started_at', started_at, 'completed_at', completed_at, 'status', status,
        'steps', (SELECT count(*) FROM steps WHERE run = runs.id),
        'spans', (SELECT count(*) FROM spans WHERE run = runs.id),
        'calls', (SELECT count(*) FROM calls WHERE run = runs.id),
        'tokens', (SELECT coalesce(sum(tokens_in + tokens_out), 0) FROM calls WHERE run = runs.id),
        'cost', (SELECT total(cost) FROM calls WHERE run = runs.id),
        'allowed', (SELECT count(*) FROM decisions WHERE run = runs.id AND action = 'allow'),
        'asked', (SELECT count(*) FROM steps WHERE run = runs.id AND kind = 'guard_decision'
                  AND action IN ('ask', 'policy_warn', 'precompact_warn', 'post_run_overage')),
        'blocked', (SELECT count(*) FROM steps WHERE run = runs.id AND kind = 'guard_decision'
                    AND action IN ('deny', 'policy_block', 'precompact_block'))) AS run
      FROM runs ORDER BY started_at DESC, rowid DESC LIMIT ?1)),
    'models', (SELECT json_group_array(json(model)) FROM (
      SELECT json_object('model', model, 'calls', count(*), 'tokens_in', sum(tokens_in),
                         'tokens_out', sum(tokens_out), 'cost', total(cost)) AS model
      FROM calls GROUP BY model ORDER BY total(cost) DESC LIMIT 12)),
    'days', (SELECT json_group_array(json(day)) FROM (
      SELECT json_object('day', day, 'tokens_in', sum(tokens_in), 'tokens_out', sum(tokens_out),
                         'cost', total(cost)) AS day
      FROM calls GROUP BY day ORDER BY day DESC LIMIT 60)),
    'totals', (SELECT json_object(
      'runs', (SELECT count(*) FROM runs), 'steps', (SELECT count(*) FROM steps), 'calls', count(*),
      'tokens_in', coalesce(sum(tokens_in), 0), 'tokens_out', coalesce(sum(tokens_out), 0), 'cost', total(cost),
      'allowed', (SELECT count(*) FROM decisions WHERE action = 'allow'),
      'asked', (SELECT count(*) FROM steps WHERE kind = 'guard_decision'
                AND action IN ('ask', 'policy_warn', 'precompact_warn', 'post_run_overage')),
      'blocked', (SELECT count(*) FROM steps WHERE kind = 'guard_decision'
                  AND action IN ('deny', 'policy_block', 'precompact_block')))
      FROM calls))
)";

// 1: the run, 2: how many items at most.
inline constexpr char runQuery[] = R"(
  SELECT json_object(
    'id', id, 'agent', agent, 'slug', slug, 'workflow', workflow, 'session', session, 'day', day,
    'started_at', started_at, 'completed_at', completed_at, 'status', status, 'error', error,
    'total', (SELECT count(*) FROM steps WHERE run = ?1) + (SELECT count(*) FROM spans WHERE run = ?1)
           + (SELECT count(*) FROM calls WHERE run = ?1) + (SELECT count(*) FROM decisions WHERE run = ?1),
    'items', (SELECT json_group_array(json(item)) FROM (SELECT item FROM (SELECT * FROM (
      SELECT at, 1 AS rank, id, json_object(
        'type', 'step', 'at', substr(coalesce(json_extract(output, '$.timestamp'), at), 1, 30), 'position', position, 'name', name,
        'kind', kind, 'action', action, 'tool', substr(json_extract(output, '$.tool_name'), 1, 100),
        'rule', substr(json_extract(output, '$.rule'), 1, 100),
        'text', substr(coalesce(
          json_extract(output, '$.violations[0]'), json_extract(output, '$.error'),
          json_extract(output, '$.tool_input.command'), json_extract(output, '$.tool_input.file_path'),
          json_extract(output, '$.tool_input.url'), json_extract(output, '$.tool_input.pattern'),
          json_extract(output, '$.tool_input.query'), json_extract(output, '$.tool_input.description'),
          json_extract(output, '$.prompt'), json_extract(output, '$.message'),
          json_extract(output, '$.agent_type'), json_extract(output, '$.cwd'),
          '$' || iif(json_type(output, '$.total_cost') IN ('integer', 'real'),
                      printf('%.4f', json_extract(output, '$.total_cost')), NULL),
          json_extract(output, '$.pre_tokens') || ' tokens', ''), 1, 400)) AS item
      FROM steps WHERE run = ?1
      UNION ALL
      SELECT at, 2, id, json_object(
        'type', 'span', 'at', start_time, 'end', end_time, 'name', name, 'kind', kind, 'status', status,
        'text', substr(coalesce(json_extract(span, '$.input_data'), json_extract(span, '$.attributes."error.message"'),
                                json_extract(span, '$.attributes."agent.id"'), ''), 1, 400))
      FROM spans WHERE run = ?1
      UNION ALL
      SELECT at, 3, id, json_object(
        'type', 'call', 'at', substr(coalesce(json_extract(call, '$.timestamp'), at), 1, 30), 'name', model,
        'tokens_in', tokens_in, 'tokens_out', tokens_out, 'cost', cost,
        'text', substr(coalesce(json_extract(call, '$.response_preview'), ''), 1, 400))
      FROM calls WHERE run = ?1
      UNION ALL
      SELECT at, 4, id, json_object('type', 'check', 'at', at, 'name', workflow, 'action', action,
                                    'text', substr(reason, 1, 400))
      FROM decisions WHERE run = ?1)
      ORDER BY at DESC, rank DESC, id DESC LIMIT ?2) ORDER BY at, rank, id)))
  FROM runs WHERE id = ?1
)";

}  // namespace LocalControlPlane

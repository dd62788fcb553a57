// The operator page of qmtahost serve: figures from /metrics, live and
// latest actions from the journal (/v1/actions), one action in full, and
// the rules loaded (/v1/rules, the module's DISPLAY). Read only. Every
// text that events, rules or programs control is set as text, never as
// markup.
'use strict';

const kRefreshMs = 5000;
const kLatest = 50;
const samples = [];  // {t, events, actions} of the last minute, for the rates

function byId(id) { return document.getElementById(id); }

function cell(tag, text, className) {
  const element = document.createElement(tag);
  if (text !== undefined && text !== null) element.textContent = String(text);
  if (className) element.className = className;
  return element;
}

async function fetchOk(url) {
  const answer = await fetch(url, {credentials: 'same-origin', cache: 'no-store'});
  if (answer.status === 401) {  // the session ended: the login form
    location.reload();
    throw new Error('not logged in');
  }
  return answer;
}

// Prometheus text: the sum of every sample of each metric name.
function parseMetrics(text) {
  const sums = {};
  for (const line of text.split('\n')) {
    if (line === '' || line.startsWith('#')) continue;
    const match = /^([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[^}]*\})?\s+(\S+)/.exec(line);
    if (!match) continue;
    const value = Number(match[3]);
    if (!Number.isFinite(value)) continue;
    sums[match[1]] = (sums[match[1]] || 0) + value;
  }
  return sums;
}

function perMinute(key) {
  if (samples.length < 2) return '-';
  const first = samples[0], last = samples[samples.length - 1];
  const seconds = (last.t - first.t) / 1000;
  if (seconds < 1) return '-';
  return String(Math.round((last[key] - first[key]) * 60 / seconds));
}

async function showFigures() {
  const metrics = parseMetrics(await (await fetchOk('/metrics')).text());
  const now = Date.now();
  samples.push({t: now, events: metrics.qmta_events_delivered_total || 0,
                actions: metrics.qmta_actions_started_total || 0});
  while (samples.length > 2 && now - samples[0].t > 60000) samples.shift();
  byId('events-rate').textContent = perMinute('events');
  byId('actions-rate').textContent = perMinute('actions');
  byId('live-count').textContent = String(metrics.qmta_actions_live || 0);
  const held = metrics.qmta_backpressure_events_total || 0;
  const holding = (metrics.qmta_backpressure_held_seconds || 0) > 0;
  byId('held-back').textContent = String(held) + (holding ? ' (holding now)' : '');
  byId('held-back').parentElement.classList.toggle('alert', holding);
}

function isRunning(action) {
  return action.ended === null && (action.outcome === null || action.outcome === 'running');
}

function outcomeText(action) {
  if (isRunning(action)) return 'running';
  let text = action.outcome || '';
  if (action.rcs) text += ' RC=' + action.rcs;
  if (action.status !== null && action.status !== undefined && action.status !== 0)
    text += ' STATUS=' + action.status;
  return text;
}

function actionKey(action) { return action.run + ':' + action.request_id; }

function actionLink(action) {
  const link = cell('a', action.request_id);
  link.href = '#action=' + encodeURIComponent(actionKey(action));
  return link;
}

function fillTable(id, rows) {
  const body = byId(id).tBodies[0];
  body.replaceChildren(...rows);
  byId(id + '-none').hidden = rows.length > 0;
  byId(id).hidden = rows.length === 0;
}

async function showActions() {
  const answer = await fetchOk('/v1/actions?limit=' + kLatest);
  const notice = byId('notice');
  if (answer.status === 404) {
    notice.textContent = 'The journal is off: start qmtahost serve with --journal FILE to see actions here.';
    notice.hidden = false;
    byId('failures').textContent = '-';
    return;
  }
  const data = await answer.json();
  if (!answer.ok) {
    notice.textContent = 'The journal cannot be read: ' + (data.error || answer.status);
    notice.hidden = false;
    return;
  }
  notice.hidden = true;
  const live = [], latest = [];
  for (const action of data.actions) {
    if (isRunning(action)) {
      if (action.run !== data.run) continue;  // never ended in an earlier run
      const row = document.createElement('tr');
      const id = cell('td');
      id.append(actionLink(action));
      row.append(cell('td', action.started), id, cell('td', action.sitname),
                 cell('td', action.destination), cell('td', action.command, 'command'));
      live.push(row);
      continue;
    }
    const row = document.createElement('tr');
    if (action.failed) row.className = 'failed';
    const id = cell('td');
    id.append(actionLink(action));
    const outcome = cell('td', null, 'outcome');
    if (action.failed) outcome.append(cell('span', 'FAILED', 'badge'));
    outcome.append(document.createTextNode(outcomeText(action)));
    row.append(cell('td', action.started), id, cell('td', action.sitname),
               cell('td', action.destination), outcome, cell('td', action.seconds));
    latest.push(row);
  }
  fillTable('live', live);
  fillTable('latest', latest);
  const failed = await fetchOk('/v1/actions?failed=1&since=1h&limit=100000');
  if (failed.ok) {
    const count = (await failed.json()).actions.length;
    byId('failures').textContent = String(count);
    byId('failures').parentElement.classList.toggle('alert', count > 0);
  }
}

async function showDetail() {
  const match = /^#action=(.+)$/.exec(location.hash);
  const section = byId('detail');
  if (!match) {
    section.hidden = true;
    return;
  }
  const key = decodeURIComponent(match[1]);
  const answer = await fetchOk('/v1/actions?request=' + encodeURIComponent(key));
  const data = await answer.json();
  const fields = byId('detail-fields');
  fields.replaceChildren();
  byId('detail-id').textContent = key;
  section.hidden = false;
  if (!answer.ok || data.actions.length === 0) {
    fields.append(cell('dt', 'error'), cell('dd', data.error || 'no such action'));
    byId('detail-output').textContent = '';
    return;
  }
  const action = data.actions[0];
  for (const name of ['sitname', 'destination', 'state', 'command', 'call_type', 'driver',
                      'started', 'ended', 'seconds', 'outcome', 'rcs', 'status', 'exit_status',
                      'signal']) {
    if (action[name] === null || action[name] === undefined || action[name] === '') continue;
    fields.append(cell('dt', name.replace('_', ' ')), cell('dd', action[name]));
  }
  if (action.failed) fields.append(cell('dt', 'failed'), cell('dd', 'yes'));
  let output = action.output || '';
  if (action.output_cut) output += '\n[output cut]';
  byId('detail-output').textContent = output === '' ? '(no output)' : output;
}

async function showRules() {
  const answer = await fetchOk('/v1/rules');
  const data = await answer.json();
  byId('rules').textContent = answer.ok ? data.lines.join('\n') : 'cannot show the rules: ' + data.error;
}

async function refresh() {
  try {
    await Promise.all([showFigures(), showActions()]);
    byId('updated').textContent = 'Updated ' + new Date().toLocaleTimeString();
  } catch (error) {
    byId('updated').textContent = 'Not updated: ' + error.message;
  }
}

document.addEventListener('DOMContentLoaded', () => {
  byId('rules-reload').addEventListener('click', () => showRules().catch(() => {}));
  window.addEventListener('hashchange', () => showDetail().catch(() => {}));
  showRules().catch(() => {});
  showDetail().catch(() => {});
  refresh();
  setInterval(refresh, kRefreshMs);
});

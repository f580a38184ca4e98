'use strict';
// What the bridge between machines says: which columns are current, since when the others are not, and where the other
// machines' pages are.

const freshnessOf = ['unknown', 'fresh', 'silent'];
let bridge = null; // of the document, kept up to date
let marks = new Map(); // server -> {freshness, since}: since when it had the words that are shown; null: not known
let cutSince = null; // since when the bridge is cut off, stopped or gone; null: it is not, or nobody knows

const hasMarks = () => !!bridge && (bridge.up || bridge.stopped_ms !== null || marks.size > 0);

function takeBridge(said, time) {
  const wasUp = bridge && bridge.up;
  if (said && !said.up && said.stopped_ms === null && marks.size) {
    // Its marks went with it; what they were about is still here.
    for (const mark of marks.values()) {
      if (mark.freshness === 'fresh') mark.since = time;
      mark.freshness = 'unknown';
    }
    bridge = {...bridge, up: false, connected: false, hasEnded: true};
    cutSince = cutSince || time;
    return;
  }
  bridge = said || null;
  const at = Date.parse(time);
  marks = new Map(
    ((bridge && bridge.servers) || []).map(mark => [
      mark.name,
      {freshness: mark.freshness, since: mark.age_ms === null ? null : localTime(at - mark.age_ms)},
    ]),
  );
  if (!bridge || (bridge.up && bridge.connected)) cutSince = null;
  else if (bridge.stopped_ms !== null) cutSince = localTime(at - bridge.stopped_ms);
  else if (wasUp) cutSince = time;
}

// A change of one of its words. Returns whether it was one.
function takeBridgeChange(key, value, time) {
  if (!key.startsWith('bridge/')) return false;
  if (!bridge) return true;
  const parts = key.split('/');
  if (parts.length === 2) {
    if (['up', 'connected', 'running', 'refused', 'fed'].includes(parts[1])) bridge[parts[1]] = value === 1;
    if (Object.hasOwn(bridge.proposals, parts[1])) bridge.proposals[parts[1]] = value;
    if (bridge.up) bridge.stopped_ms = null;
    if (parts[1] === 'connected' || parts[1] === 'up')
      cutSince = bridge.up && bridge.connected ? null : cutSince || time;
  } else if (parts[3] === 'freshness' && marks.has(parts[2])) {
    const mark = marks.get(parts[2]);
    mark.freshness = freshnessOf[value] || 'unknown';
    mark.since = mark.freshness === 'fresh' ? null : time;
    const x = servers.indexOf(parts[2]);
    if (x >= 0) for (const row of rows) paint(row, x);
  }
  return true;
}

// Of a column: 'own', 'fresh', 'silent', 'unknown'; '' if there is no bridge.
function markOf(x) {
  if (!hasMarks()) return '';
  if (servers[x] === bridge.server) return 'own';
  return bridge.up && marks.has(servers[x]) ? marks.get(servers[x]).freshness : 'unknown';
}
const isOld = x => ['silent', 'unknown'].includes(markOf(x));
function markText(x) {
  const mark = marks.get(servers[x]),
    text = markOf(x);
  return isOld(x) && mark && mark.since ? `${text} since ${clock(mark.since).slice(0, 8)}` : text;
}

// Only what a browser can open as a page. Another machine wrote it, so it may be anything.
function pageAddress(text) {
  try {
    const address = new URL(text);
    const isWeb = ['http:', 'https:'].includes(address.protocol);
    return isWeb && !address.username && !address.password ? address.href : null;
  } catch {
    return null;
  }
}

function bridgeText() {
  const since = cutSince ? ` since ${clock(cutSince).slice(0, 8)}` : '';
  if (bridge.hasEnded) return `The bridge has ended${since}`;
  if (!bridge.up) return `The bridge stands still${since}`;
  if (!bridge.connected) return `Cut off from the other machines${since}`;
  return bridge.refused ? 'Another machine has this name' : 'Connected';
}

function drawMarks() {
  const has = hasMarks() && !!picture;
  $('machines-card').hidden = !has;
  $('notice').hidden = !has || (bridge.up && bridge.connected);
  for (const head of document.querySelectorAll('th.server')) {
    const x = Number(head.dataset.x);
    head.classList.toggle('old', isOld(x));
    if (picture && picture.servers[x]) {
      const text = `priority ${picture.servers[x].pri}`,
        mark = markText(x);
      head.lastChild.textContent = isOld(x) ? mark : text;
      head.title = servers[x] + (mark ? `, ${mark}` : '');
    }
  }
  if (!has) return;
  $('notice').textContent = `${bridgeText()}: what is shown of the other machines may be old.`;
  const line = (text, detail) => element('li', null, element('span'), element('span', null, text), element('small', null, detail));
  const machines = bridge.servers.map(mark => {
    const address = pageAddress(mark.address),
      {freshness, since} = marks.get(mark.name) || {freshness: 'unknown', since: null};
    const text = bridge.up ? freshness : 'unknown';
    const name = address
      ? element('a', {href: address, rel: 'noopener noreferrer', 'data-machine': mark.name}, mark.name)
      : element('span', {'data-machine': mark.name}, mark.name);
    return element(
      'li',
      null,
      element('span', {class: 'swatch ' + (text === 'fresh' ? 'ok' : 'unknown')}),
      name,
      element('time', null, text === 'fresh' || !since ? text : `${text} since ${clock(since).slice(0, 8)}`),
    );
  });
  const lists = [
    ...bridge.contested.map(key => line(key, 'contested')),
    ...bridge.unmatched.map(key => line(key, 'only elsewhere')),
  ];
  if (Number(bridge.proposals.lost) > 0) lists.push(line('Proposals', `${bridge.proposals.lost} lost`));
  $('machines').replaceChildren(line(bridgeText(), bridge.cluster), ...machines, ...lists);
}

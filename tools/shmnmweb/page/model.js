'use strict';
// What the page knows: the newest picture, where each of its words is shown, and what the values mean.

const $ = id => document.getElementById(id);
const levels = ['ok', 'none', 'unknown', 'warning', 'bad', 'other'];
const levelTexts = {
  ok: 'in order',
  none: 'none',
  unknown: 'unknown',
  warning: 'warning',
  bad: 'bad',
  other: 'not named',
};
const labels = {
  combstat: 'state',
  nodestat: 'node',
  nodestat_nw: 'network node',
  downnotifystat: 'down notified',
  isolateflag: 'isolated',
  pingstat: 'ping',
  holdstat: 'hold',
  dfailstatus: 'simulated failure',
};
const groups = {hb: 'Heartbeat', np: 'Network partition'};
const markMs = 4000,
  listedChanges = 200,
  listedAttention = 12,
  contactMs = 25000,
  oldestMs = 5000;

function element(tag, attributes, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) if (value !== undefined) made.setAttribute(name, value);
  made.append(...children.filter(child => child !== undefined));
  return made;
}
const count = (number, one, many = one + 's') => `${number.toLocaleString('en')} ${number === 1 ? one : many}`;
const clock = time => (time ? time.slice(11, 23) : '');
function ago(time) {
  const s = Math.max(0, (Date.now() - Date.parse(time)) / 1000);
  return s < 10
    ? s.toFixed(1) + ' s'
    : s < 120
      ? Math.round(s) + ' s'
      : s < 7200
        ? Math.round(s / 60) + ' min'
        : s < 172800
          ? Math.round(s / 3600) + ' h'
          : Math.round(s / 86400) + ' days';
}

// What the page knows.
let picture = null; // the newest whole document; its values are kept up to date in rows and facts
let servers = []; // names, in the order of the columns
let rows = []; // {group, type, label, key(x), values, network, common}
let places = new Map(); // key -> {row, x, network}: where its value is shown
let clusterWords = new Map();
let changed = new Map(); // key -> time of its last known change
let patterns = null; // of the operator's names: [{expression, states}]
let shown = null; // {rows, columns}: what the filter leaves
let cells = new Map(); // row -> [td by column]
let ranks = new Map(); // value without a name -> which neutral look it has
let focus = null; // {row, x}
let pressed = ''; // the look that the legend shows alone
let size = '';
let lastChange = null,
  lastContact = Date.now(),
  staleSince = null,
  staleWhy = '';

// ---- What a value means

const stateCache = new Map();
function stateOf(key, value) {
  const text = value === null ? 'none' : String(value);
  let states = stateCache.get(key);
  if (states === undefined) {
    const found = (patterns || []).find(pattern => pattern.expression.test(key));
    stateCache.set(key, (states = found ? found.states : null));
  }
  if (!states) return {look: neutralLook(text), text};
  const named = Object.hasOwn(states, text) ? states[text] : null;
  return named ? {look: named.level, text, name: named.name} : {look: 'other', text};
}
function neutralLook(text) {
  if (!ranks.has(text)) ranks.set(text, ranks.size);
  return 'value-' + Math.min(ranks.get(text), 5);
}
const isException = (row, x) => {
  const {look} = stateOf(row.key(x), row.values[x]);
  return levels.includes(look) ? ['bad', 'warning', 'other'].includes(look) : row.values[x] !== row.common;
};
// As a cell is read out: with the texts that it shows, in their order.
const spoken = state => (state.name ? `${state.name} ${state.text}` : state.text);
const describe = state => (state.name ? `${state.name} (${state.text})` : state.text);

// ---- From the document to rows

function rowsOf(document) {
  const all = [];
  const add = row => {
    row.y = all.length;
    all.push(row);
  };
  const words = document.servers.length
    ? Object.keys(document.servers[0]).filter(word => !['name', 'pri', 'alive'].includes(word))
    : [];
  if (words.includes('combstat')) words.sort((one, other) => (other === 'combstat') - (one === 'combstat'));
  for (const word of words) {
    add({
      group: 'Servers',
      word,
      label: labels[word] || word,
      key: x => `servers/${servers[x]}/${word}`,
      values: document.servers.map(server => server[word]),
    });
  }
  for (const kind of Object.keys(groups))
    for (const resource of document[kind]) {
      const record = `${kind}/${resource.type}/${resource.name}`;
      add({
        group: groups[kind],
        type: resource.type,
        label: resource.name,
        descript: resource.descript,
        record,
        key: x => `${record}/svstat/${servers[x]}`,
        networkKey: x => `${record}/network/${servers[x]}`,
        values: [...resource.svstat],
        network: resource.network ? [...resource.network] : undefined,
      });
    }
  return all;
}

function mostCommon(values) {
  const counts = new Map();
  for (const value of values) counts.set(value, (counts.get(value) || 0) + 1);
  let best = values[0];
  for (const [value, times] of counts) if (times > (counts.get(best) || 0)) best = value;
  return best;
}

function takePicture(document, time) {
  picture = document;
  takeBridge(document.bridge, time);
  const before = places.size ? new Map([...places].map(([key, place]) => [key, valueAt(place)])) : null;
  const signature = JSON.stringify([
    document.servers.map(server => [server.name, server.pri]),
    ...Object.keys(groups).map(kind => document[kind].map(resource => [resource.type, resource.name])),
  ]);
  const isSame = signature === takePicture.signature;
  takePicture.signature = signature;
  servers = document.servers.map(server => server.name);
  const fresh = rowsOf(document);
  if (isSame) {
    fresh.forEach((row, y) => {
      rows[y].values = row.values;
      rows[y].network = row.network;
      rows[y].descript = row.descript;
    });
  } else {
    rows = fresh;
    places = new Map();
    for (const row of rows)
      for (let x = 0; x < servers.length; x++) {
        if (!places.has(row.key(x))) places.set(row.key(x), {row, x, network: false});
        if (row.network && !places.has(row.networkKey(x))) places.set(row.networkKey(x), {row, x, network: true});
      }
    stateCache.clear();
  }
  clusterWords = new Map(
    [...Object.entries(document.cluster), ['dfailstatus', document.simulation.dfailstatus]].map(([word, value]) => [
      'cluster/' + word,
      value,
    ]),
  );
  for (const row of rows) row.common = mostCommon(row.values);
  if (!isSame) {
    ranks = new Map();
    rankValues();
  }
  if (isSame && cells.size) {
    for (const row of rows) for (let x = 0; x < servers.length; x++) paint(row, x);
    for (const [key, place] of places)
      if (before && before.has(key) && before.get(key) !== valueAt(place)) mark(place.row, place.x);
  } else build();
}
const valueAt = place => (place.network ? place.row.network[place.x] : place.row.values[place.x]);

// The commonest values without names get the palest looks.
function rankValues() {
  const counts = new Map();
  for (const row of rows)
    row.values.forEach(value => {
      const text = value === null ? 'none' : String(value);
      counts.set(text, (counts.get(text) || 0) + 1);
    });
  for (const [text] of [...counts].sort((one, other) => other[1] - one[1])) neutralLook(text);
}

function takeChange(change) {
  const value = 'new' in change ? change.new : null;
  if (takeBridgeChange(change.key, value, change.time)) return;
  if (clusterWords.has(change.key)) clusterWords.set(change.key, value);
  const place = places.get(change.key);
  if (!place) return;
  (place.network ? place.row.network : place.row.values)[place.x] = value;
  const common = mostCommon(place.row.values);
  if (common !== place.row.common) {
    place.row.common = common;
    for (let x = 0; x < servers.length; x++) paint(place.row, x);
  } else paint(place.row, place.x);
  mark(place.row, place.x);
}

'use strict';
// Shows the picture that the server's event stream delivers: first whole, then change by change. Everything is built by
// createElement and textContent, so that no name can become markup.

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
  contactMs = 25000;

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

function takePicture(document) {
  picture = document;
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

// ---- The table

function filterWords() {
  return $('filter').value.toLowerCase().split(/\s+/).filter(Boolean);
}

function build() {
  const words = filterWords();
  const has = (row, x) => {
    const key = row.key(x).toLowerCase();
    return words.every(word => key.includes(word));
  };
  const columns = servers.map((_, x) => x).filter(x => !words.length || rows.some(row => has(row, x)));
  const kept = rows.filter(row => !words.length || columns.some(x => has(row, x)));
  shown = {rows: kept, columns};

  const many = columns.length,
    room = Math.min(document.body.clientWidth - 56, 1704) - 64;
  size = room - 150 >= many * 108 && kept.length <= 24 ? 'large' : room - 132 >= many * 42 ? 'medium' : 'small';
  const label = size === 'small' ? 132 : 150;
  const isGap = place => size === 'small' && place > 0 && place % 16 === 0;
  const gaps = size === 'small' ? Math.floor(many / 16) * 4 : 0;
  const width =
    size === 'large'
      ? Math.min(138, Math.floor((room - label) / Math.max(1, many)))
      : size === 'medium'
        ? Math.min(60, Math.floor((room - label) / many))
        : Math.max(7, Math.floor((room - label - gaps) / many));

  const table = $('table');
  table.className = size + (pressed ? ' dimmed' : '');
  const columnsOf = element('colgroup', null, element('col'), ...columns.map(() => element('col')));
  columnsOf.children[0].style.width = label + 'px';
  columns.forEach((_, place) => {
    columnsOf.children[place + 1].style.width = width + (isGap(place) ? 4 : 0) + 'px';
  });
  const head = element('thead');
  if (size === 'small')
    head.append(
      element(
        'tr',
        null,
        element('td'),
        element('td', {colspan: Math.max(1, many)}, element('div', {class: 'axis', id: 'axis', 'aria-hidden': 'true'})),
      ),
    );
  head.append(
    element(
      'tr',
      size === 'small' ? {class: 'hidden-text'} : null,
      element('td'),
      ...columns.map(x =>
        size === 'small'
          ? element('th', {scope: 'col'}, servers[x])
          : element(
              'th',
              {scope: 'col', class: 'server', title: servers[x]},
              servers[x],
              element('small', null, 'priority ' + picture.servers[x].pri),
            ),
      ),
    ),
  );
  cells = new Map();
  const bodies = [];
  let group = '';
  for (const row of kept) {
    if (row.group !== group) {
      group = row.group;
      bodies.push(
        element(
          'tbody',
          {class: 'group'},
          element('tr', null, element('th', {class: 'name', scope: 'rowgroup', colspan: many + 1}, group)),
        ),
      );
    }
    const line = element(
      'tr',
      null,
      element(
        'th',
        {scope: 'row', title: row.record || row.word},
        row.type ? element('small', null, row.type) : '',
        row.label,
      ),
    );
    cells.set(row, []);
    columns.forEach((x, place) => {
      const cell = element('td', {tabindex: '-1'}, element('span'));
      cell.place = {row, x};
      if (isGap(place)) cell.classList.add('gap');
      cells.get(row)[x] = cell;
      line.append(cell);
    });
    bodies[bodies.length - 1].append(line);
  }
  table.replaceChildren(columnsOf, head, ...bodies);
  for (const row of kept) for (const x of columns) paint(row, x);
  const known = focus && rows[focus.row.y] && kept.includes(rows[focus.row.y]) && columns.includes(focus.x);
  focus = known ? {row: rows[focus.row.y], x: focus.x} : kept.length && many ? {row: kept[0], x: columns[0]} : null;
  if (focus) cells.get(focus.row)[focus.x].tabIndex = 0;
  idle();
}
function idle() {
  $('say').textContent =
    !shown || !shown.rows.length
      ? 'No key contains all of these words.'
      : size === 'small'
        ? 'Point at a cell, or move with the arrow keys.'
        : 'Each column is a server. Point at a cell for its key.';
}

function paint(row, x) {
  const cell = cells.get(row)?.[x];
  if (!cell) return;
  const key = row.key(x),
    state = stateOf(key, row.values[x]);
  const isUnlike = state.look.startsWith('value-') && row.values[x] !== row.common;
  cell.className = [
    state.look,
    isUnlike ? 'unlike' : '',
    cell.classList.contains('gap') ? 'gap' : '',
    cell.classList.contains('new') ? 'new' : '',
    pressed === state.look ? 'hit' : '',
  ]
    .filter(Boolean)
    .join(' ');
  cell.dataset.key = key;
  cell.dataset.value = state.text;
  cell.firstChild.replaceChildren(
    ...(size === 'small'
      ? []
      : size === 'large' && state.name
        ? [state.name + ' ', element('small', null, state.text)]
        : [state.text]),
  );
  const network = row.network && row.network[x] !== row.values[x] ? stateOf(row.networkKey(x), row.network[x]) : null;
  if (row.network) cell.dataset.networkValue = String(row.network[x]);
  if (network) {
    cell.dataset.network = network.look;
    cell.style.setProperty('--network', `var(--${levels.includes(network.look) ? network.look : 'unknown'})`);
  } else delete cell.dataset.network;
  cell.setAttribute(
    'aria-label',
    `${servers[x]}, ${row.type ? row.type + ' ' : ''}${row.label}: ${describe(state)}${network ? `, network-wide ${describe(network)}` : ''}`,
  );
}

const markTimers = new Map();
function mark(row, x) {
  const cell = cells.get(row)?.[x];
  if (!cell) return;
  clearTimeout(markTimers.get(cell));
  if (cell.classList.contains('new')) {
    cell.classList.remove('new');
    requestAnimationFrame(() => cell.classList.add('new'));
  } else cell.classList.add('new');
  markTimers.set(
    cell,
    setTimeout(() => {
      cell.classList.remove('new');
      markTimers.delete(cell);
    }, markMs),
  );
}

// The axis of a small table: every sixteenth server, and servers whose node state is an exception.
function drawAxis() {
  const axis = $('axis');
  if (!axis || !shown.rows.length) return;
  const {columns} = shown,
    first = cells.get(shown.rows[0]);
  const left = first[columns[0]].getBoundingClientRect().left;
  const at = x => first[x].getBoundingClientRect().left - left + (first[x].classList.contains('gap') ? 4 : 0);
  const row = rows.find(one => one.word === 'nodestat');
  const exceptions = row ? columns.filter(x => isException(row, x)).slice(0, 12) : [];
  const isClose = x => exceptions.some(other => other >= x && at(other) - at(x) < 68);
  const add = (x, kind, text) => {
    const label = element(
      'span',
      {class: kind + (text && columns.indexOf(x) > columns.length * 0.94 ? ' left' : '')},
      text,
    );
    label.style.left = at(x) + 'px';
    axis.append(label);
  };
  axis.replaceChildren();
  columns.forEach((x, place) => {
    if (place % 16 === 0) add(x, '', isClose(x) ? '' : servers[x]);
  });
  let end = -1;
  for (const x of exceptions) {
    const text = `${servers[x]} ${stateOf(row.key(x), row.values[x]).name || row.values[x]}`;
    add(x, 'exception', at(x) > end ? text : '');
    if (at(x) > end) end = at(x) + text.length * 7 + 8;
  }
  axis.append(element('span', {class: 'here', id: 'here', hidden: ''}));
}

// ---- Head and cards

function allExceptions() {
  const all = [];
  for (const row of rows)
    for (let x = 0; x < servers.length; x++)
      if (isException(row, x)) all.push({row, x, state: stateOf(row.key(x), row.values[x])});
  return all;
}
const severity = look => ({bad: 0, warning: 1, other: 2})[look] ?? 3;
function listed(names) {
  return names.length > 4 ? `${names.slice(0, 3).join(', ')} … ${names[names.length - 1]}` : names.join(', ');
}

// A server that is bad as a whole, or has many exceptions, is one item; the rest is one item per row and value.
function attentionItems(exceptions) {
  const items = [],
    byServer = new Map(),
    rest = new Map();
  for (const one of exceptions) byServer.set(one.x, [...(byServer.get(one.x) || []), one]);
  const many = Math.max(6, rows.length / 3);
  for (const [x, all] of byServer) {
    const own = all.find(one => one.row.word === 'nodestat' && one.state.look === 'bad');
    if (own || (all.length >= many && rows.length > 8)) {
      const worst =
        own || all.reduce((one, other) => (severity(other.state.look) < severity(one.state.look) ? other : one));
      const others = own ? all.length - 1 : all.length;
      items.push({
        ...worst,
        size: all.length,
        isWhole: true,
        title: own
          ? `${servers[x]} · ${own.row.label}: ${describe(own.state)}`
          : `${servers[x]} · ${count(others, 'word')}`,
        detail: own
          ? others
            ? `and ${count(others, 'other word')} of it`
            : own.row.key(x)
          : listed(all.map(one => one.row.label)),
      });
    } else
      for (const one of all) {
        const id = one.row.y + ' ' + one.state.text;
        rest.set(id, [...(rest.get(id) || []), one]);
      }
  }
  for (const all of rest.values()) {
    const [one] = all;
    items.push({
      ...one,
      size: all.length,
      title: `${all.length > 1 ? count(all.length, 'server') : servers[one.x]} · ${one.row.label}: ${describe(one.state)}`,
      detail: all.length > 1 ? listed(all.map(each => servers[each.x])) : one.row.key(one.x),
    });
  }
  return items.sort(
    (one, other) =>
      severity(one.state.look) - severity(other.state.look) || !!other.isWhole - !!one.isWhole || other.size - one.size,
  );
}

function drawSummary() {
  $('filter-field').hidden = $('picture').hidden = !picture;
  $('attention-card').hidden = !picture;
  if (!picture) {
    $('verdict').textContent = 'There is no picture';
    $('lead').textContent = staleWhy;
    $('sign').className = 'sign';
    $('sign').textContent = '–';
    for (const id of ['facts', 'legend', 'attention', 'region']) $(id).replaceChildren();
    return;
  }
  const exceptions = allExceptions(),
    items = attentionItems(exceptions);
  const nodes = rows.find(row => row.word === 'nodestat');
  const alive = nodes ? nodes.values.filter(value => value === 1).length : 0;
  const isNamed = !!patterns;
  const worst = !isNamed
    ? ''
    : exceptions.some(one => one.state.look === 'bad')
      ? 'bad'
      : exceptions.some(one => one.state.look === 'warning')
        ? 'warning'
        : 'ok';
  $('verdict').textContent = !servers.length
    ? 'There are no servers'
    : alive === servers.length
      ? alive === 1
        ? 'The server is alive'
        : `All ${alive} servers are alive`
      : `${alive} of ${servers.length} servers ${alive === 1 ? 'is' : 'are'} alive`;
  $('sign').className = 'sign ' + worst;
  $('sign').textContent = {bad: '!', warning: '!', ok: '✓'}[worst] || '#';
  $('lead').textContent = items.length
    ? items
        .slice(0, 3)
        .map(item => item.title)
        .join('; ') + (items.length > 3 ? `; and ${items.length - 3} more.` : '.')
    : isNamed
      ? 'Nothing needs attention.'
      : 'Every row has one value.';

  const facts = $('facts');
  facts.replaceChildren();
  for (const [key, value] of clusterWords) {
    const word = key.slice(8);
    if (word === 'alive') continue;
    const state = stateOf(key, value);
    const fact = element(
      'div',
      {class: levels.includes(state.look) ? state.look : '', 'data-key': key, 'data-value': state.text},
      element('dt', null, word === 'dfailstatus' ? 'simulation' : word),
      element('dd', null, state.text),
    );
    if (state.name) fact.lastChild.append(' ', element('small', null, state.name));
    facts.append(fact);
  }

  const counts = new Map();
  for (const row of rows)
    for (let x = 0; x < servers.length; x++) {
      const {look} = stateOf(row.key(x), row.values[x]);
      counts.set(look, (counts.get(look) || 0) + 1);
    }
  const neutral = [...ranks]
    .slice(0, 5)
    .map(([text, rank]) => ['value-' + rank, text])
    .concat([['value-5', 'others']]);
  const focused = document.activeElement?.dataset?.look;
  $('legend').replaceChildren(
    ...[...levels.map(level => [level, levelTexts[level]]), ...neutral]
      .filter(([look]) => counts.has(look))
      .map(([look, text]) =>
        element(
          'li',
          null,
          element(
            'button',
            {type: 'button', 'aria-pressed': String(pressed === look), 'data-look': look},
            element('span', {class: 'swatch ' + look}),
            text + ' ',
            element('b', null, counts.get(look).toLocaleString('en')),
          ),
        ),
      ),
  );
  if (focused) $('legend').querySelector(`[data-look="${focused}"]`)?.focus();

  $('h-attention').textContent = isNamed ? 'Needs attention' : 'Unlike the rest of its row';
  $('attention').replaceChildren(
    ...items.slice(0, listedAttention).map(item => {
      const key = item.row.key(item.x),
        button = element(
          'button',
          {type: 'button', 'data-key': key},
          item.title,
          element('br'),
          element('small', {class: 'key'}, item.detail),
        );
      return element(
        'li',
        null,
        element('span', {class: 'swatch ' + item.state.look}),
        button,
        element('time', null, changed.has(key) ? ago(changed.get(key)) : ''),
      );
    }),
  );
  if (items.length > listedAttention)
    $('attention').append(
      element(
        'li',
        null,
        '',
        element('span', {class: 'more'}, `${items.length - listedAttention} more; press N to go through all`),
        '',
      ),
    );
  if (!items.length)
    $('attention').append(
      element(
        'li',
        null,
        element('span', {class: 'swatch ok'}),
        element('span', null, isNamed ? 'Nothing' : 'Every row has one value'),
        '',
      ),
    );
  drawRegion();
  drawAxis();
}

// A key that may break after each of its slashes.
const keyText = key =>
  key.split('/').flatMap((part, i, parts) => (i < parts.length - 1 ? [part + '/', element('wbr')] : [part]));
const eventTexts = {
  gone: 'The region has gone',
  replaced: 'Another region is in its place',
  back: 'There is a region again',
};
function changeLine(change) {
  if (change.event)
    return element(
      'li',
      null,
      element('time', null, clock(change.time)),
      element('span', null, eventTexts[change.event] || change.event),
      '',
    );
  const value = name => (name in change ? (change[name] === null ? 'none' : String(change[name])) : '–');
  return element(
    'li',
    null,
    element('time', {datetime: change.time}, clock(change.time)),
    places.has(change.key)
      ? element('button', {type: 'button', class: 'key', 'data-key': change.key}, ...keyText(change.key))
      : element('span', {class: 'key'}, ...keyText(change.key)),
    element('b', null, `${value('old')} → ${value('new')}`),
  );
}
function addChanges(changes) {
  for (const change of changes) if (change.key) changed.set(change.key, change.time);
  $('changes').prepend(...changes.slice(-listedChanges).reverse().map(changeLine));
  while ($('changes').children.length > listedChanges) $('changes').lastChild.remove();
}

let lockFacts = new Map();
function drawRegion() {
  const {region} = picture,
    fact = name => lockFacts.get(name);
  const list = [
    ['region', `${region.size.toLocaleString('en')} bytes`],
    ['servers', `${region.server_count} of ${region.max_servers}`],
    ['heartbeat', `${region.hb_count} of ${region.max_hb}`],
    ['network partition', `${region.np_count} of ${region.max_np}`],
  ];
  if (!region.live) list.push(['source', 'a dump']);
  if (fact('shmnm_region_findings') !== undefined)
    list.push([
      'verify',
      fact('shmnm_region_findings') ? count(fact('shmnm_region_findings'), 'finding') : 'no findings',
    ]);
  if (fact('shmnm_lock_held') !== undefined) list.push(['lock', fact('shmnm_lock_held') ? 'held' : 'free']);
  if (fact('shmnm_lock_takes_total') !== undefined)
    list.push(['lock taken', count(fact('shmnm_lock_takes_total'), 'time')]);
  if (fact('shmnm_lock_takeovers_total') !== undefined)
    list.push(['lock taken over', count(fact('shmnm_lock_takeovers_total'), 'time')]);
  if (picture.interrupted.length) list.push(['interrupted changes', String(picture.interrupted.length)]);
  list.push(['this page', 'reads, never writes']);
  $('region').replaceChildren(
    ...list.flatMap(([name, value]) => [element('dt', null, name), element('dd', null, value)]),
  );
}
async function readLockFacts() {
  try {
    const answer = await fetch('metrics?collect[]=region&collect[]=lock', {
      cache: 'no-store',
      signal: AbortSignal.timeout(4000),
    });
    if (!answer.ok) return;
    lockFacts = new Map(
      (await answer.text())
        .split('\n')
        .filter(line => line && line[0] !== '#')
        .map(line => [line.slice(0, line.lastIndexOf(' ')), Number(line.slice(line.lastIndexOf(' ') + 1))]),
    );
    if (picture) drawRegion();
  } catch {
    /* The stream tells when the server is gone. */
  }
}

let summaryAsked = false;
function summarise() {
  if (summaryAsked) return;
  summaryAsked = true;
  requestAnimationFrame(() => {
    summaryAsked = false;
    drawSummary();
  });
}

// ---- The stream

function setStale(since, why) {
  staleSince = since;
  staleWhy = why;
  document.body.classList.toggle('stale', since !== null);
  const text =
    since === null
      ? picture && !picture.region.live
        ? 'A dump'
        : 'Live'
      : `Stale since ${since ? clock(since).slice(0, 8) : 'the start'}: ${why}`;
  if ($('live').textContent !== text) $('live').textContent = text;
  drawAge();
}
function drawAge() {
  $('age').textContent = staleSince === null && lastChange ? `changed ${ago(lastChange)} ago` : '';
}

function localTime(at) {
  const time = new Date(at),
    two = number => String(number).padStart(2, '0');
  return `${time.getFullYear()}-${two(time.getMonth() + 1)}-${two(time.getDate())}T${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}.000`;
}

let stream = null;
function connect() {
  if (stream) stream.close();
  stream = new EventSource('events');
  const on = (name, take) =>
    stream.addEventListener(name, event => {
      lastContact = Date.now();
      take(JSON.parse(event.data));
    });
  on('picture', event => {
    if (event.picture) takePicture(event.picture);
    else {
      picture = null;
      takePicture.signature = '';
      places = new Map();
      cells = new Map();
    }
    changed = new Map();
    $('changes').replaceChildren();
    addChanges(event.history);
    lastChange = event.history.length ? event.history[event.history.length - 1].time : null;
    setStale(event.stale ? event.stale.since || '' : null, event.stale ? event.stale.message : '');
    $('source').textContent = event.names_problem || '';
    summarise();
  });
  on('changes', event => {
    for (const change of event.changes) {
      change.time = event.time;
      takeChange(change);
    }
    addChanges(event.changes);
    lastChange = event.time;
    setStale(null, '');
    summarise();
  });
  on('alive', event => {
    if (staleWhy === noContact) connect();
  });
  stream.onopen = () => {
    lastContact = Date.now();
    if (staleWhy === noContact && picture) setStale(null, '');
  };
  stream.onerror = () => {
    loseContact();
    if (stream.readyState === EventSource.CLOSED) setTimeout(connect, 1000);
  };
}
const noContact = 'no contact with the server; trying again';
function loseContact() {
  if (staleSince === null || !staleWhy) setStale(localTime(lastContact), noContact);
  if (!picture) summarise();
}

async function readNames() {
  try {
    const answer = await fetch('names.json', {cache: 'no-store'});
    if (!answer.ok) return;
    const file = await answer.json();
    const expression = pattern =>
      new RegExp(
        '^' +
          pattern
            .split('*')
            .map(part => part.replace(/[.*+?^${}()|[\]\\]/g, '\\$&'))
            .join('[^/]*') +
          '$',
      );
    patterns = Object.entries(file.words).map(([pattern, states]) => ({expression: expression(pattern), states}));
  } catch {
    /* Without names the page shows numbers. */
  }
}

// ---- Keyboard and pointer

function say(row, x) {
  const state = stateOf(row.key(x), row.values[x]),
    network = row.network && row.network[x] !== row.values[x] ? stateOf(row.networkKey(x), row.network[x]) : null;
  $('say').replaceChildren(
    element('b', null, servers[x]),
    ` · ${row.type ? row.type + '/' : ''}${row.label} · `,
    element('b', null, describe(state)),
    ...(network ? [', network-wide ', element('b', null, describe(network))] : []),
    changed.has(row.key(x)) ? ` · changed ${ago(changed.get(row.key(x)))} ago ` : ' ',
    element('span', {class: 'key'}, row.key(x)),
  );
  for (const line of $('table').querySelectorAll('tr.on')) line.classList.remove('on');
  const cell = cells.get(row)?.[x];
  if (!cell) return;
  cell.parentNode.classList.add('on');
  const here = $('here');
  if (here) {
    const box = cell.getBoundingClientRect();
    here.hidden = false;
    here.textContent = servers[x];
    here.style.left = box.left + box.width / 2 - $('axis').getBoundingClientRect().left + 'px';
  }
}
function go(row, x) {
  const cell = cells.get(row)?.[x];
  if (!cell) return;
  if (focus) {
    const old = cells.get(focus.row)?.[focus.x];
    if (old) old.tabIndex = -1;
  }
  focus = {row, x};
  cell.tabIndex = 0;
  cell.focus();
  say(row, x);
}
function goTo(key) {
  const place = places.get(key);
  if (!place) return;
  if (!cells.get(place.row)?.[place.x]) {
    $('filter').value = '';
    build();
    drawAxis();
  }
  go(place.row, place.x);
}
function nextException(step) {
  if (!focus || !shown) return;
  const {rows: kept, columns} = shown,
    total = kept.length * columns.length;
  const start = kept.indexOf(focus.row) * columns.length + columns.indexOf(focus.x);
  for (let i = 1; i <= total; i++) {
    const at = (((start + i * step) % total) + total) % total,
      row = kept[Math.floor(at / columns.length)],
      x = columns[at % columns.length];
    if (isException(row, x)) return go(row, x);
  }
  $('say').textContent = 'There is no exception.';
}
const placeOf = event => event.target.closest?.('#table td')?.place;
$('table').addEventListener('mouseover', event => {
  const place = placeOf(event);
  if (place) say(place.row, place.x);
});
$('table').addEventListener('click', event => {
  const place = placeOf(event);
  if (place) go(place.row, place.x);
});
$('table').addEventListener('focusin', event => {
  const place = placeOf(event);
  if (place && (!focus || focus.row !== place.row || focus.x !== place.x)) go(place.row, place.x);
});
addEventListener('click', event => {
  const key = event.target.closest?.('aside button[data-key]')?.dataset.key;
  if (key) goTo(key);
});
addEventListener('keydown', event => {
  if (event.ctrlKey || event.metaKey || event.altKey || $('help').open) return;
  if (event.target === $('filter')) {
    if (event.key === 'Escape' || event.key === 'Enter') {
      if (event.key === 'Escape') {
        $('filter').value = '';
        build();
        drawAxis();
      }
      event.preventDefault();
      if (focus) go(focus.row, focus.x);
    }
    return;
  }
  const handled = () => event.preventDefault();
  if ($('table').contains(document.activeElement) && focus && shown) {
    const {rows: kept, columns} = shown,
      y = kept.indexOf(focus.row),
      x = columns.indexOf(focus.x);
    const move = {
      ArrowLeft: [y, x - 1],
      ArrowRight: [y, x + 1],
      ArrowUp: [y - 1, x],
      ArrowDown: [y + 1, x],
      Home: [y, 0],
      End: [y, columns.length - 1],
      PageUp: [0, x],
      PageDown: [kept.length - 1, x],
    }[event.key];
    if (move) {
      handled();
      return go(
        kept[Math.max(0, Math.min(kept.length - 1, move[0]))],
        columns[Math.max(0, Math.min(columns.length - 1, move[1]))],
      );
    }
  }
  if (event.key === 'n') {
    handled();
    nextException(1);
  }
  if (event.key === 'N') {
    handled();
    nextException(-1);
  }
  if (event.key === '/') {
    handled();
    $('filter').focus();
    $('filter').select();
  }
  if (event.key === '?') {
    handled();
    $('help').showModal();
  }
  if (event.key === 'Escape' && $('filter').value) {
    $('filter').value = '';
    build();
    drawAxis();
  }
});
$('filter').addEventListener('input', () => {
  if (picture) {
    build();
    drawAxis();
  }
});
$('legend').addEventListener('click', event => {
  const look = event.target.closest('button')?.dataset.look;
  if (!look) return;
  pressed = pressed === look ? '' : look;
  $('table').classList.toggle('dimmed', !!pressed);
  for (const row of shown.rows) for (const x of shown.columns) paint(row, x);
  drawSummary();
});
$('help-button').addEventListener('click', () => $('help').showModal());
function setTheme(theme) {
  if (theme === 'dark' || theme === 'light') document.documentElement.dataset.theme = theme;
}
$('theme').addEventListener('click', () => {
  const now = document.documentElement.dataset.theme,
    isDark = now ? now === 'dark' : matchMedia('(prefers-color-scheme: dark)').matches;
  setTheme(isDark ? 'light' : 'dark');
  try {
    localStorage.setItem('theme', isDark ? 'light' : 'dark');
  } catch {
    /* It lasts as long as the page. */
  }
});
try {
  setTheme(localStorage.getItem('theme'));
} catch {
  /* The system's theme. */
}
setTheme(new URLSearchParams(location.search).get('theme'));
let resizing = 0;
addEventListener('resize', () => {
  clearTimeout(resizing);
  resizing = setTimeout(() => {
    if (picture) {
      build();
      drawAxis();
    }
  }, 150);
});

setInterval(() => {
  drawAge();
  if (Date.now() - lastContact > contactMs) {
    loseContact();
    lastContact = Date.now();
    connect();
  }
}, 1000);
setInterval(readLockFacts, 5000);
readNames().then(connect);
readLockFacts();

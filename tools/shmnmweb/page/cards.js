'use strict';
// What stands around the table: verdict, values of the cluster, legend, and the cards.

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
    drawMarks();
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
  $('sign').className = worst ? 'sign ' + worst : 'sign';
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
  drawMarks();
  drawRegion();
  drawAxis();
}

// A key that may break after each of its slashes.
const keyText = key =>
  key.split('/').flatMap((part, i, parts) => (i < parts.length - 1 ? [part + '/', element('wbr')] : [part]));
const eventTexts = {
  gone: 'The region has gone',
  replaced: 'Another region is in its place',
  created: 'There is a region',
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
  if (changes.length) for (const line of $('changes').children) if (!line.querySelector('time')) line.remove();
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

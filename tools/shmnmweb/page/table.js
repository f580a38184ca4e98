'use strict';
// The table: servers across, their words and resources down.

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
              {scope: 'col', class: 'server', title: servers[x], 'data-x': x},
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
    isOld(x) ? 'old' : '',
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
    `${servers[x]}, ${row.type ? row.type + ' ' : ''}${row.label}: ${spoken(state)}${network ? `, network-wide ${spoken(network)}` : ''}${isOld(x) ? `, ${markOf(x)}` : ''}`,
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

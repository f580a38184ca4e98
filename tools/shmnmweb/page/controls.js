'use strict';
// Keyboard and pointer. The last script: it starts the page.

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
  writeLink();
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

// A link names a cell by its key: /#servers/alpha/nodestat
let linkTimer = 0;
function followLink() {
  const key = location.hash.slice(1);
  if (!picture || !key.includes('/')) return;
  if (places.has(key)) goTo(key);
  else $('say').textContent = `No cell has the key ${key}.`;
}
// The address follows the focus once it rests: browsers limit how often a page may change its address.
function writeLink() {
  clearTimeout(linkTimer);
  linkTimer = setTimeout(() => {
    if (focus) history.replaceState(null, '', '#' + focus.row.key(focus.x));
  }, 250);
}
addEventListener('hashchange', followLink);

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

'use strict';
// The event stream, and what the page says when it breaks.

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

let stream = null,
  isOpened = false; // the page has shown a picture
function connect() {
  if (stream) stream.close();
  stream = new EventSource('events');
  const on = (name, take) =>
    stream.addEventListener(name, event => {
      lastContact = Date.now();
      take(JSON.parse(event.data));
    });
  on('picture', event => {
    if (event.picture) takePicture(event.picture, event.time);
    else {
      picture = null;
      takePicture.signature = '';
      places = new Map();
      cells = new Map();
    }
    changed = new Map();
    $('changes').replaceChildren();
    addChanges(event.history);
    if (!event.history.length) $('changes').append(element('li', null, '', element('span', null, 'None since the server started'), ''));
    lastChange = event.history.length ? event.history[event.history.length - 1].time : null;
    setStale(event.stale ? event.stale.since || '' : null, event.stale ? event.stale.message : '');
    summarise();
    if (picture && !isOpened) {
      isOpened = true;
      followLink();
    }
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
    // A server that cannot finish a copy does not know why yet.
    const isOld = event.copied && Date.parse(event.time) - Date.parse(event.copied) > oldestMs;
    if (isOld && staleSince === null) setStale(event.copied, noCopy);
    else if (!isOld && staleWhy === noCopy) setStale(null, '');
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
const noCopy = 'the server makes no newer copy';
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

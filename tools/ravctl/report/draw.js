'use strict';
// What the scripts of the page share: the answers, elements, and how values are shown. Texts of the answers come from
// strangers: they go into text nodes and attributes that name nothing, and through shown() before that.

const SVG_NAMESPACE = 'http://www.w3.org/2000/svg';
const LONGEST_TEXT = 300; // characters of a text in a picture or a list
const LONGEST_WHOLE_TEXT = 20000; // where one is shown alone

// What would be invisible or turn the direction of the text around it: controls, marks of direction and of no width.
const HIDDEN = new RegExp(
  '[\\u0000-\\u001f\\u007f-\\u009f\\u00ad\\u034f\\u061c\\u115f\\u1160\\u17b4\\u17b5\\u180b-\\u180f\\u200b-\\u200f' +
    '\\u2028-\\u202e\\u2060-\\u206f\\u3164\\ufe00-\\ufe0f\\ufeff\\uffa0\\ufff0-\\ufffb]',
  'g',
);

// The text with hidden characters as "\u202e", cut when it is longer than the limit.
function shown(value, limit = LONGEST_TEXT, keepLines = false) {
  let text = String(value);
  const length = text.length;
  if (length > limit) text = text.slice(0, limit);
  text = text.replace(HIDDEN, (mark) =>
    keepLines && (mark === '\n' || mark === '\t') ? mark : '\\u' + mark.charCodeAt(0).toString(16).padStart(4, '0'),
  );
  return (length > limit ? text + '… (' + length + ' characters)' : text).toWellFormed?.() ?? text;
}

function append(parent, children) {
  for (const child of children.flat(Infinity)) {
    if (child === null || child === undefined || child === false) continue;
    parent.append(child instanceof Node ? child : shown(child));
  }
  return parent;
}

// element('p', {class: 'note'}, 'text', otherElement, [more, of them])
function element(name, attributes, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes ?? {})) {
    if (value !== null && value !== undefined) made.setAttribute(key, shown(value));
  }
  return append(made, children);
}

function shape(name, attributes, ...children) {
  const made = document.createElementNS(SVG_NAMESPACE, name);
  for (const [key, value] of Object.entries(attributes ?? {})) made.setAttribute(key, value);
  return append(made, children);
}

// A picture that a screen reader names by its text.
function picture(text, width, height, attributes, ...shapes) {
  return shape(
    'svg',
    {viewBox: `0 0 ${width} ${height}`, role: 'img', 'aria-label': shown(text), ...attributes},
    shapes,
  );
}

function facts(rows) {
  return element(
    'dl',
    null,
    rows
      .filter(([, value]) => value !== null && value !== undefined && value !== '')
      .map(([name, value]) => element('div', null, element('dt', null, name), element('dd', null, value))),
  );
}

// As numbers, ten of the shown ones at most and how many more.
function listed(values, most = 10) {
  if (!values?.length) return null;
  const more = values.length > most ? ` and ${values.length - most} more` : '';
  return values.slice(0, most).join(', ') + more;
}

function plural(count, one, many = one + 's') {
  return `${count.toLocaleString('en')} ${count === 1 ? one : many}`;
}

// 1536 => "1.5 KiB"
function sizeText(bytes) {
  if (bytes === null || bytes === undefined) return null;
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];
  let unit = 0;
  while (bytes >= 1024 && unit < units.length - 1) ((bytes /= 1024), ++unit);
  return `${bytes < 10 && unit > 0 ? bytes.toFixed(1) : Math.round(bytes)} ${units[unit]}`;
}

function durationText(seconds) {
  if (seconds === null || seconds === undefined) return null;
  const days = Math.floor(seconds / 86400),
    hours = Math.floor(seconds / 3600) % 24;
  return days > 0 ? `${plural(days, 'day')} ${hours} h` : `${hours} h ${Math.floor(seconds / 60) % 60} min`;
}

// What a browser's own number cannot be given for is no number.
function percentOf(value) {
  return typeof value === 'number' && Number.isFinite(value) ? Math.min(Math.max(value, 0), 100) : null;
}

const FULL = 90,
  VERY_FULL = 98; // percent

// How full something is: a bar, and in words.
function fillBar(percent, what) {
  const value = percentOf(percent);
  if (value === null) return element('span', {class: 'untold'}, 'how full it is, is not told');
  const state = value >= VERY_FULL ? 'bad' : value >= FULL ? 'warning' : 'ok';
  const words = value >= VERY_FULL ? ' – full' : value >= FULL ? ' – nearly full' : '';
  return element(
    'span',
    {class: 'fill ' + state},
    picture(
      `${what} is ${value} % full`,
      100,
      8,
      {class: 'bar', 'data-percent': value, preserveAspectRatio: 'none'},
      shape('rect', {class: 'track', width: 100, height: 8}),
      shape('rect', {class: 'filled', width: value, height: 8}),
    ),
    ` ${value} %${words}`,
  );
}

// The answers that the page holds, each read once; a large one stands in several elements.
const answerCache = new Map();

function answerElements(id) {
  return [...document.querySelectorAll(`script[data-answer="${id}"]`)];
}

function answerText(id) {
  return answerElements(id)
    .map((each) => each.textContent)
    .join('');
}

// Nothing was asked, or what answered broke off.
function parseAnswer(text) {
  try {
    return JSON.parse(text);
  } catch {
    return {data: null, warnings: [], error: text === '' ? null : {message: 'the answer breaks off'}};
  }
}

// Of an answer of several lines, one object a line: all of them.
function answerLines(id) {
  const text = answerText(id).trim();
  return text === '' ? [] : text.split('\n').map(parseAnswer);
}

// {data, warnings, error}; data is null when the command failed, or was not asked.
function answer(id) {
  if (!answerCache.has(id)) answerCache.set(id, parseAnswer(answerText(id)));
  return answerCache.get(id);
}

// Why there is no data, as a paragraph; null where there is some.
function reason(...ids) {
  const failed = ids.map(answer).filter((each) => each.error);
  return failed.map((each) => element('p', {class: 'untold'}, 'Not told: ' + each.error.message));
}

function section(id, ...children) {
  return append(document.getElementById(id), children);
}

// Small parts that the page is made of. Text from the record becomes text nodes only.

const LONGEST_COMMAND_OF_A_LIST = 400;

const byId = (id) => document.getElementById(id);

// An element with attributes, of which "on..." are listeners, and children, of which null is none.
function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (value === true) element.setAttribute(name, '');
    else if (value !== null && value !== undefined && value !== false) element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

function makeButton(kind, onclick, attributes, ...children) {
  return make('button', { type: 'button', class: kind, onclick, ...attributes }, ...children);
}

function cell(...children) {
  return make('td', {}, ...children);
}

function numberCell(text, kind = '') {
  return make('td', { class: `number ${kind}` }, text);
}

// Columns of numbers have a name that begins with "#".
function tableHead(columns) {
  const heads = columns.map((column) =>
    make('th', { scope: 'col', class: column.startsWith('#') ? 'number' : null }, column.replace('#', '')),
  );
  return make('thead', {}, make('tr', {}, ...heads));
}

function cutText(text, most = LONGEST_COMMAND_OF_A_LIST) {
  return text.length > most ? `${text.slice(0, most)} …` : text;
}

function quoteForSearch(text) {
  return /[\s"]/.test(text) ? `"${text.replaceAll('"', '')}"` : text;
}

// A bar whose length is the share, with its figure behind it.
function barOf(share, text, kind, colour) {
  const style = `width:${(limit(share, 0, 1) * 100).toFixed(1)}%${colour ? `;background:${colour}` : ''}`;
  return make(
    'div',
    { class: 'meter' },
    make('div', { class: 'track' }, make('i', { class: kind, style })),
    make('span', {}, text),
  );
}

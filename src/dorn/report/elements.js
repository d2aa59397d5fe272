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

// The JSON API of tamsel serve, on this page's own origin.
export async function get(path) {
  const res = await fetch(path, { cache: 'no-store' });
  return res.json();
}

export async function post(path, body = {}) {
  const res = await fetch(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  });
  return res.json();
}

// Small element builder: el('button', {class: 'row', onclick}, child, ...).
export function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs)) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
    else if (name === 'text') node.textContent = value;
    else node.setAttribute(name, value === true ? '' : value);
  }
  for (const child of children.flat()) if (child != null) node.append(child);
  return node;
}

// A switch: role switch, named by `name`, sends `onchange(on)` on a click or Space.
export function toggle(name, on, onchange) {
  return el('button', {
    role: 'switch', 'aria-checked': on ? 'true' : 'false', 'aria-label': name,
    onclick: (event) => { event.stopPropagation(); onchange(!on); },
  });
}

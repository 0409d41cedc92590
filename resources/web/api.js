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

// Replaces a box's children and keeps keyboard focus: the control that had it
// gets it again in the new drawing, so a keystroke that arrives after a redraw
// still reaches the row it was meant for instead of the page's body.
export function replaceKeepingFocus(box, ...children) {
  const focused = box.contains(document.activeElement) ? focusKey(document.activeElement) : null;
  box.replaceChildren(...children);
  if (!focused) return;
  const again = [...box.querySelectorAll(focused.tag)].find((node) => focusKey(node).id === focused.id);
  if (again) again.focus({ preventScroll: true });
}

function focusKey(node) {
  const tag = node.tagName.toLowerCase();
  return { tag, id: [tag, node.getAttribute('role'), node.getAttribute('aria-label'),
    node.dataset.row, node.dataset.counter, node.firstChild?.textContent].join('\u0001') };
}

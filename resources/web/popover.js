// The popover under the toolbar button, drawn from GET /api/popover.
import { get, post, el, toggle, replaceKeepingFocus } from './api.js';

const dark = matchMedia('(prefers-color-scheme: dark)');
let chart = null;
let lastChildKind = null;

let asked = 0;

export async function renderPopover(page) {
  // Answers can arrive out of order; only the newest request's is drawn.
  const ticket = ++asked;
  const model = await get('/api/popover');
  if (ticket !== asked) return model;
  const popover = document.getElementById('popover');
  popover.hidden = !model.shown;
  popover.setAttribute('aria-label', page.texts['web.popover']);
  if (!model.shown) { lastChildKind = null; return model; }
  renderRows(model.rows, page);
  renderChild(model.child, page);
  renderAlert(model.alert);
  return model;
}

function renderRows(rows, page) {
  const box = document.getElementById('popover-rows');
  const sections = new Map();
  for (const row of rows) {
    if (!sections.has(row.section)) sections.set(row.section, el('div', { class: 'section' }));
    sections.get(row.section).append(renderRow(row, page));
  }
  replaceKeepingFocus(box, ...sections.values());
}

function renderRow(row, page) {
  if (row.kind === 'header') {
    const button = row.button && el('button', {
      'aria-label': row.button.tooltip, title: row.button.tooltip, text: '📈\uFE0E',
      onclick: () => post('/api/popover/stats-button'),
    });
    return el('div', { class: 'header', role: 'heading', 'aria-level': '3' }, el('span', { text: row.title }), button);
  }
  if (row.counters) {
    return el('div', { class: 'counters', role: 'group', 'aria-label': row.title || undefined },
      row.counters.map((c) => el('button', {
        class: 'counter', 'aria-label': c.label, 'aria-description': `${c.text} — ${c.description}`,
        title: c.description, 'data-counter': c.id,
        onclick: () => post(`/api/popover/counters/${c.id}`),
      }, el('span', { class: 'value', text: c.text }), el('span', { class: 'label', text: c.label }))));
  }
  const texts = el('span', { class: 'texts' }, el('span', { text: row.title }),
    row.description ? el('span', { class: 'description', text: row.description }) : null);
  if ('switch' in row) {
    return el('div', { class: 'row', 'data-row': row.id }, texts,
      toggle(row.title, row.switch, (on) => post(`/api/popover/rows/${row.id}/switch`, { on })));
  }
  return el('button', {
    class: 'row', 'data-row': row.id, 'aria-label': row.title, 'aria-description': row.description,
    'aria-disabled': row.selectable ? undefined : 'true',
    onclick: () => post(`/api/popover/rows/${row.id}/click`),
  }, texts);
}

function renderAlert(alert) {
  const box = document.getElementById('alert');
  box.hidden = !alert;
  if (!alert) return box.replaceChildren();
  const buttons = [el('button', { class: 'default', text: alert.ok, onclick: () => post('/api/popover/alert/ok') })];
  if (alert.cancel) buttons.unshift(el('button', { text: alert.cancel, onclick: () => post('/api/popover/alert/cancel') }));
  box.replaceChildren(el('div', {
    class: 'alert-box', role: 'alertdialog', 'aria-modal': 'true', 'aria-labelledby': 'alert-title',
    'aria-describedby': 'alert-message',
  }, el('h2', { id: 'alert-title', text: alert.title }), el('p', { id: 'alert-message', text: alert.message }),
  el('div', { class: 'buttons' }, buttons)));
  box.querySelector('.default').focus();
}

const childAction = (action, body) => post(`/api/popover/child/${action}`, body);

function renderChild(child, page) {
  const box = document.getElementById('child');
  if (!child || child.kind === 'alert') {
    box.hidden = true; box.replaceChildren(); lastChildKind = null;
    if (chart) { chart.destroy(); chart = null; }
    return;
  }
  // A new child slides in; an update of the same one redraws in place.
  if (lastChildKind !== child.kind) { box.style.animation = 'none'; void box.offsetWidth; box.style.animation = ''; }
  lastChildKind = child.kind;
  box.hidden = false;
  box.setAttribute('role', 'region');
  box.setAttribute('aria-label', child.title);
  const bar = el('div', { class: 'child-bar' },
    el('button', { class: 'icon', 'aria-label': page.texts['web.close'], text: '‹', onclick: () => childAction('dismiss') }),
    el('h2', { text: child.title }));
  const body = el('div', { class: 'child-body' });
  if (child.kind === 'whitelist') whitelist(child, body);
  if (child.kind === 'blockingStats') statistics(child, body, page);
  if (child.kind === 'blockedHistory') history(child, body);
  if (child.kind === 'siteReporter') report(child, body, box);
  if (chart && child.kind !== 'blockingStats') { chart.destroy(); chart = null; }
  replaceKeepingFocus(box, bar, body);
  if (child.kind === 'blockingStats') drawChart(child, box.querySelector('canvas'));
}

function whitelist(child, body) {
  for (const row of child.rows) {
    if (row.kind === 'categoriesHeader') { body.append(el('div', { class: 'header', role: 'heading', 'aria-level': '3', text: row.title })); continue; }
    const action = { turnOffSwitch: 'turnOffBlocking', disableAllSwitch: 'disableAll', contentBlockerSwitch: 'contentBlocker' }[row.kind];
    body.append(el('div', { class: 'row', 'data-row': row.id }, el('span', { text: row.title }),
      toggle(row.title, row.switch, (on) => childAction(action, row.extension ? { on, extension: row.extension } : { on }))));
  }
}

function statistics(child, body) {
  body.append(el('div', { class: 'picker', role: 'radiogroup', 'aria-label': child.title },
    child.picker.periods.map((period, i) => el('button', {
      role: 'radio', 'aria-checked': i === child.picker.selected ? 'true' : 'false', text: child.picker.labels[i],
      onclick: () => childAction('period', { period }),
    }))));
  if (child.chart.notEnoughData) body.append(el('p', { class: 'note', role: 'status', text: child.chart.notEnoughData }));
  else body.append(el('div', { class: 'chart' }, el('canvas', { role: 'img', 'aria-label': child.title })));
  for (const c of child.categories) {
    body.append(el('div', { class: 'category', title: c.tooltip || undefined },
      el('span', {}, el('span', { class: 'swatch', style: `background:${dark.matches ? c.tint.dark : c.tint.light}` }), c.label),
      el('span', { text: c.text ?? String(c.value ?? '') })));
  }
  if (child.notes.text) body.append(el('p', { class: 'note', text: child.notes.text }));
}

function drawChart(child, canvas) {
  if (chart) { chart.destroy(); chart = null; }
  if (!canvas || !window.Chart) return;
  const points = child.chart.points;
  const label = (iso) => {
    const d = new Date(iso);
    if (child.chart.xAxisShowsHoursOnly) return d.toLocaleTimeString([], { hour: '2-digit', minute: '2-digit' });
    return d.toLocaleDateString([], child.chart.xAxisShowsYear ? { year: 'numeric', month: 'short', day: 'numeric' } : { month: 'short', day: 'numeric' });
  };
  const style = getComputedStyle(document.documentElement);
  chart = new window.Chart(canvas, {
    type: 'line',
    data: {
      labels: points.map((p) => label(p.date)),
      datasets: child.categories.map((c) => {
        const colour = dark.matches ? c.tint.dark : c.tint.light;
        return { label: c.label, data: points.map((p) => p.categories[c.id] ?? 0), borderColor: colour, backgroundColor: colour, tension: 0.3, pointRadius: 2 };
      }),
    },
    options: {
      animation: false, maintainAspectRatio: false,
      plugins: { legend: { display: false } },
      scales: {
        x: { ticks: { color: style.getPropertyValue('--secondaryText') }, grid: { display: false } },
        y: { beginAtZero: true, ticks: { precision: 0, color: style.getPropertyValue('--secondaryText') }, grid: { color: style.getPropertyValue('--separator') } },
      },
    },
  });
}

function history(child, body) {
  for (const section of child.sections) {
    body.append(el('div', { class: 'header', role: 'heading', 'aria-level': '3', text: section.title }),
      el('ul', { class: 'urls', 'aria-label': section.title }, section.urls.map((u) => el('li', { text: u }))));
  }
  body.append(el('div', { class: 'row' }, el('span', { text: child.badgeSwitch.label }),
    toggle(child.badgeSwitch.label, child.badgeSwitch.on, (on) => childAction('badge', { on }))));
}

function report(child, body, box) {
  const previous = box.querySelector('textarea');
  const typing = previous && document.activeElement === previous;
  body.append(el('p', { class: 'note', text: child.prompt }),
    el('div', { role: 'radiogroup', 'aria-label': child.prompt }, child.types.map((t) => el('button', {
      class: 'row', role: 'radio', 'aria-checked': t.checked ? 'true' : 'false',
      onclick: () => childAction('type', { type: t.id }),
    }, el('span', { text: t.title }), el('span', { text: t.checked ? '✓' : '' })))));
  const comment = typing ? previous : el('textarea', { 'aria-label': child.placeholder, placeholder: child.placeholder });
  if (!typing) comment.value = child.comment;
  comment.oninput = () => childAction('comment', { comment: comment.value });
  body.append(comment, el('p', { class: 'note', text: child.footer }));
  if (child.note) body.append(el('p', { class: 'note', role: 'status', text: child.note }));
  if (child.sendButton) body.append(el('button', {
    class: 'send', text: child.sendButton, 'aria-disabled': child.sending ? 'true' : undefined,
    onclick: async () => { await childAction('comment', { comment: comment.value }); childAction('send'); },
  }));
  if (typing) queueMicrotask(() => comment.focus());
}

dark.addEventListener('change', () => document.dispatchEvent(new Event('tamsel-appearance')));

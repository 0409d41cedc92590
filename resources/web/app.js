// The substitute Safari window: tabs, address bar, back and reload, the
// toolbar button with its badge, the page area and the popover. Everything
// shown comes from the API; changes arrive as server-sent events.
import { get, post, el } from './api.js';
import { renderPopover } from './popover.js';

const $ = (id) => document.getElementById(id);
const state = { page: null, windows: [], tab: null, shown: new Map() };
window.tamsel = state;

function applyTheme(theme) {
  const dark = matchMedia('(prefers-color-scheme: dark)').matches;
  for (const [role, colour] of Object.entries(theme.colors))
    document.documentElement.style.setProperty(`--${role}`, dark ? colour.dark : colour.light);
}

// The page area shows demo hosts through the content origin: /t/TAB/https/HOST/PATH.
function areaAddress(tab, url) {
  const match = /^(https?):\/\/(.*)$/i.exec(url);
  if (!match) return 'about:blank';
  return `${state.page.contentOrigin}/m/${tab}/${match[1].toLowerCase()}/${match[2]}`;
}

function showInArea(tab, url, force = false) {
  if (!force && state.shown.get(tab) === url) return;
  state.shown.set(tab, url);
  delete $('page').dataset.loaded;
  $('page').src = url ? areaAddress(tab, url) : 'about:blank';
}

function normalise(text) {
  text = text.trim();
  if (!text) return null;
  try {
    return new URL(/^[a-z]+:\/\//i.test(text) ? text : `https://${text}`).href;
  } catch {
    return null;
  }
}

async function refreshTabs() {
  const { windows } = await get('/api/windows');
  state.windows = windows;
  const front = windows.find((w) => w.front) || windows[0];
  const tabs = front ? front.tabs : [];
  const active = tabs.find((t) => t.active);
  state.tab = active ? active.id : null;
  $('tabs').replaceChildren(...tabs.map((t) => el('button', {
    role: 'tab', 'aria-selected': t.active ? 'true' : 'false', text: t.url ? new URL(t.url).host : state.page.texts['web.new-tab'],
    title: t.url || '', onclick: () => post(`/api/tabs/${t.id}/activate`),
  })));
  if (document.activeElement !== $('address')) $('address').value = active?.url || '';
  showInArea(active ? active.id : null, active ? active.url : null);
  $('back').disabled = !active || !active.canGoBack;
}

// Every change of the toolbar item comes as an event with its state, so the
// newest event is the truth; an answer to GET /api/toolbar is drawn only when
// no event arrived while it was on its way (it may have been read before).
let toolbarEvents = 0;

async function refreshToolbar(toolbar) {
  if (toolbar) {
    toolbarEvents++;
  } else {
    const seen = toolbarEvents;
    toolbar = await get('/api/toolbar');
    if (seen !== toolbarEvents) return;
  }
  $('badge').textContent = toolbar.badge;
  $('toolbar-item').setAttribute('aria-disabled', toolbar.enabled ? 'false' : 'true');
}

async function navigate(url) {
  if (!url) return;
  if (!state.tab) {
    const { id } = await post('/api/tabs', { url });
    state.tab = id;
  } else {
    await post(`/api/tabs/${state.tab}/navigate`, { url });
  }
  await refreshTabs();
}

function setUpWindow() {
  const t = state.page.texts;
  document.title = t['app-name'];
  $('tabs').setAttribute('aria-label', t['web.tabs']);
  $('new-tab').setAttribute('aria-label', t['web.new-tab']);
  $('back').setAttribute('aria-label', t['web.back']);
  $('reload').setAttribute('aria-label', t['web.reload']);
  $('address').setAttribute('aria-label', t['web.address']);
  $('toolbar-item').setAttribute('aria-label', t['app-name']);
  $('page').setAttribute('title', t['web.page-area']);
  // Safari validates the toolbar item when a page has loaded.
  $('page').addEventListener('load', async () => {
    if (state.tab) await post('/api/toolbar/validate');
    $('page').dataset.loaded = 'true';
  });

  $('address-form').addEventListener('submit', (event) => {
    event.preventDefault();
    navigate(normalise($('address').value));
    $('address').blur();
  });
  $('new-tab').addEventListener('click', async () => { await post('/api/tabs', {}); refreshTabs(); $('address').focus(); });
  $('reload').addEventListener('click', () => state.tab && post(`/api/tabs/${state.tab}/reload`));
  // The tab's history is the server's: going back is the tab's, as reload is.
  $('back').addEventListener('click', async () => {
    if (!state.tab) return;
    await post(`/api/tabs/${state.tab}/back`);
    refreshTabs();
  });
  $('toolbar-item').addEventListener('click', async () => {
    const shown = !$('popover').hidden;
    if (!shown) await post('/api/toolbar/click');
    await post(shown ? '/api/popover/close' : '/api/popover/show');
    renderPopover(state.page);
  });
  document.addEventListener('keydown', (event) => {
    if (event.key === 'Escape' && !$('popover').hidden) post('/api/popover/close');
    if (event.key === 'Escape') $('context-menu').hidden = true;
  });
  document.addEventListener('click', (event) => {
    $('context-menu').hidden = true;
    if (!$('popover').hidden && !$('popover').contains(event.target) && !$('toolbar-item').contains(event.target)
        && event.target.isConnected) {
      $('popover').hidden = true;
      post('/api/popover/close');
    }
  });

  // The page area's content script: context menu and the element picker.
  window.addEventListener('message', (event) => {
    if (event.source !== $('page').contentWindow || event.origin !== state.page.contentOrigin || !state.tab) return;
    const data = event.data || {};
    if (data.type === 'hideSelector' && typeof data.selector === 'string')
      post(`/api/tabs/${state.tab}/messages`, { name: 'hideSelector', userInfo: { sel: data.selector } });
    if (data.type === 'contextmenu') openContextMenu(data.x, data.y);
  });
}

function openContextMenu(x, y) {
  const area = $('page').getBoundingClientRect();
  const menu = $('context-menu');
  menu.replaceChildren(el('button', {
    role: 'menuitem', text: state.page.texts['web.context-menu.hide-element'],
    onclick: () => { menu.hidden = true; post('/api/context-menu', { command: 'invokeSelectorMode', tab: state.tab }); },
  }));
  menu.style.left = `${area.left + x}px`;
  menu.style.top = `${area.top + y}px`;
  menu.hidden = false;
  menu.querySelector('button').focus();
}

function listen() {
  const events = new EventSource('/api/events');
  events.addEventListener('toolbar', (e) => {
    const data = JSON.parse(e.data);
    const front = state.windows.find((w) => w.front);
    if (!front || data.window === front.id) refreshToolbar(data);
  });
  events.addEventListener('popover', () => renderPopover(state.page));
  events.addEventListener('child', () => renderPopover(state.page));
  events.addEventListener('tabs', () => refreshTabs().then(() => refreshToolbar()));
  events.addEventListener('reload', (e) => {
    const { tab } = JSON.parse(e.data);
    if (tab === state.tab) showInArea(tab, state.shown.get(tab), true);
  });
  events.addEventListener('message', (e) => {
    const message = JSON.parse(e.data);
    if (message.tab === state.tab)
      $('page').contentWindow.postMessage({ name: message.name, userInfo: message.userInfo }, state.page.contentOrigin);
  });
  events.addEventListener('hello', () => { refreshTabs(); refreshToolbar(); renderPopover(state.page); });
  return events;
}

async function start() {
  state.page = await get('/api/page');
  applyTheme(state.page.theme);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => { applyTheme(state.page.theme); renderPopover(state.page); });
  setUpWindow();
  listen();
  await refreshTabs();
  await refreshToolbar();
  await renderPopover(state.page);
  document.body.dataset.ready = 'true';
}

start();

// The page: sign in to the relay, pick a computer, prove its password, then browse, search, preview and
// move files. Everything the computer says ("message", "error") is shown as it says it.

import { deriveProof } from './cipher.js';
import { AgentError, Computer } from './computer.js';
import * as relay from './relay.js';
import { ThumbnailLoader } from './thumbnails.js';

const $ = (id) => document.getElementById(id);
const PROOF_KEY = 'vandrel.proof.';

// ---- status line -------------------------------------------------------------------------------------

function say(text, { error = false } = {}) {
  const line = $('status');
  line.textContent = text;
  line.classList.toggle('error', error);
}

function fail(error) {
  say(error instanceof Error ? error.message : String(error), { error: true });
}

// ---- the tab's session: while it is open the computer keeps polling the relay ------------------------

const session = {
  id: null,
  opening: null,
  async current() {
    if (this.id) return this.id;
    this.opening ??= relay.openSession().then(
      (id) => { this.id = id; this.opening = null; return id; },
      (error) => { this.opening = null; throw error; },
    );
    return this.opening;
  },
  close() {
    if (this.id) relay.closeSession(this.id);
    this.id = null;
  },
  async keepAlive() {
    if (!this.id) return;
    try {
      await relay.keepSessionAlive(this.id);
    } catch (error) {
      // The relay forgot it (restarted, or the tab slept too long): start a fresh one.
      if (error.status === 404 || error.status === 410) this.id = null;
    }
  },
};

setInterval(() => session.keepAlive(), 5000);
addEventListener('pagehide', () => session.close());
document.addEventListener('visibilitychange', () => {
  if (document.visibilityState === 'hidden') session.close();
  else if (state.computer) session.current().catch(fail);
});

// ---- views -------------------------------------------------------------------------------------------

const state = {
  computer: null,
  thumbs: null,
  roots: [],
  place: null, // { dir, page, search: { text, type, names } | null }
  items: [],
  previewIndex: -1,
  generation: 0,
};

function show(section) {
  for (const id of ['login', 'computers', 'password', 'browser']) $(id).hidden = id !== section;
  const browsing = section === 'browser';
  $('search').hidden = !browsing;
  $('tools').hidden = !browsing;
  if (!browsing) closePreview();
}

function showLogin(message) {
  show('login');
  if (message) say(message, { error: true });
  $('token').focus();
}

async function listComputers() {
  let list;
  try {
    list = await relay.computers();
  } catch (error) {
    if (error.status === 401) return showLogin('Sign in with the access token first.');
    return fail(error);
  }
  // Leaving a computer: nothing more is asked of it, and its listing goes.
  state.thumbs?.reset();
  state.generation++;
  state.computer = null;
  state.place = null;
  state.items = [];
  $('items').replaceChildren();
  show('computers');
  const ul = $('computer-list');
  ul.replaceChildren();
  $('no-computers').hidden = list.length > 0;
  for (const info of list) {
    const button = document.createElement('button');
    button.type = 'button';
    const name = document.createElement('span');
    name.textContent = info.computer_name || info.computer_id;
    const detail = document.createElement('small');
    const seen = Number(info.date) ? new Date(Number(info.date) * 1000).toLocaleString() : 'unknown';
    detail.textContent = `${info.pword_required ? 'Password required · ' : ''}last seen ${seen}`;
    button.append(name, detail);
    button.addEventListener('click', () => chooseComputer(info));
    const li = document.createElement('li');
    li.append(button);
    ul.append(li);
  }
  ul.querySelector('button')?.focus();
}

// What this tab remembers for a computer, or null when it has nothing usable.
function storedProof(computerId) {
  try {
    const proof = JSON.parse(sessionStorage.getItem(PROOF_KEY + computerId));
    if (typeof proof?.pwordHash === 'string' && typeof proof.aesKey === 'string') return proof;
  } catch {
    // Unreadable: ask for the password again.
  }
  sessionStorage.removeItem(PROOF_KEY + computerId);
  return null;
}

async function chooseComputer(info) {
  const computer = new Computer(info, () => session.current());
  computer.encryptAll = sessionStorage.getItem('vandrel.encryptAll') === 'true';
  state.computer = computer;
  state.thumbs = new ThumbnailLoader(computer);
  const stored = storedProof(computer.id);
  if (stored) {
    await computer.setProof(stored);
  } else if (info.pword_required) {
    return askPassword();
  } else {
    // No password set: the agent accepts proofs made with the empty one.
    await computer.setProof(await deriveProof(computer.id, ''));
  }
  await openRoots();
}

function askPassword(message) {
  show('password');
  $('password-computer').textContent = state.computer.name;
  $('password-input').value = '';
  if (message) say(message, { error: true });
  $('password-input').focus();
}

async function openRoots() {
  show('browser');
  $('encrypt-all').checked = state.computer.encryptAll;
  await go({ dir: '', page: 0, search: null }, { push: true });
}

// ---- browsing and searching --------------------------------------------------------------------------

function requestFor(place) {
  const fields = { request_type: 'search', search_dir: place.dir, result_page: place.page };
  if (place.search) {
    if (place.search.text) fields[place.search.names ? 'name_search' : 'search_string'] = place.search.text;
    if (place.search.type) fields.file_type = place.search.type;
  }
  return fields;
}

async function go(place, { push = false } = {}) {
  const computer = state.computer;
  const generation = ++state.generation;
  state.thumbs.reset();
  closePreview();
  say(place.search ? 'Searching…' : 'Loading…');
  let record;
  try {
    ({ record } = await computer.ask(requestFor(place)));
  } catch (error) {
    if (generation !== state.generation) return;
    if (error instanceof AgentError && error.code === 'auth') {
      sessionStorage.removeItem(PROOF_KEY + computer.id);
      return askPassword(error.message);
    }
    return fail(error);
  }
  if (generation !== state.generation) return;
  state.place = place;
  if (push) history.pushState({ place }, '');
  if (!place.search) {
    $('search-text').value = '';
    $('search-type').value = '';
  }
  const items = Array.isArray(record.items) ? record.items.filter((i) => i && typeof i.path === 'string') : [];
  if (place.dir === '' && !place.search) state.roots = items.map((i) => i.path).filter(Boolean);
  state.items = items;
  renderCrumbs(place);
  renderItems(items, Boolean(place.search));
  renderPager(place, record);
  window.scrollTo(0, 0);
  // The button that was pressed is gone with the old listing; keep a keyboard user in the new one.
  if (!document.activeElement || document.activeElement === document.body) focusItem(0);
  if (record.error) say(String(record.error), { error: true });
  else if (place.search) say(`${Number(record.total_item_count) || 0} found.`);
  else say('');
}

function basename(path) {
  const parts = path.split('/').filter(Boolean);
  return parts.length ? parts[parts.length - 1] : '/';
}

function parentOf(path) {
  const cut = path.replace(/\/+$/, '').lastIndexOf('/');
  return cut > 0 ? path.slice(0, cut) : '/';
}

// Crumbs start at the root the folder lies in, so a home folder reads "Computer › alice › Photos".
function crumbsFor(dir) {
  const crumbs = [{ label: state.computer.name, dir: '' }];
  if (!dir) return crumbs;
  const root = state.roots
    .filter((r) => dir === r || dir.startsWith(r.endsWith('/') ? r : `${r}/`))
    .sort((a, b) => b.length - a.length)[0];
  let walked = root ?? '';
  if (root) crumbs.push({ label: basename(root), dir: root });
  else crumbs.push({ label: '/', dir: '/' });
  for (const part of dir.slice(walked.length).split('/').filter(Boolean)) {
    walked = walked.endsWith('/') ? walked + part : `${walked}/${part}`;
    crumbs.push({ label: part, dir: walked });
  }
  return crumbs;
}

function renderCrumbs(place) {
  const ol = $('crumbs');
  ol.replaceChildren();
  const crumbs = crumbsFor(place.dir);
  if (place.search) crumbs.push({ label: `Search “${place.search.text || 'all'}”`, dir: null });
  crumbs.forEach((crumb, i) => {
    const li = document.createElement('li');
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = crumb.label;
    if (i === crumbs.length - 1) button.setAttribute('aria-current', 'location');
    if (crumb.dir !== null) button.addEventListener('click', () => go({ dir: crumb.dir, page: 0, search: null }, { push: true }));
    li.append(button);
    ol.append(li);
  });
}

function formatSize(bytes) {
  if (typeof bytes !== 'number') return '';
  if (bytes < 1000) return `${bytes} B`;
  const units = ['KB', 'MB', 'GB', 'TB'];
  let value = bytes / 1000;
  let unit = 0;
  while (value >= 1000 && unit < units.length - 1) {
    value /= 1000;
    unit++;
  }
  return `${value.toFixed(value < 10 ? 1 : 0)} ${units[unit]}`;
}

function extensionOf(path) {
  const name = basename(path);
  const dot = name.lastIndexOf('.');
  return dot > 0 && name.length - dot <= 6 ? name.slice(dot + 1).toUpperCase() : '';
}

function isFolder(item) {
  return item.dir === true && item.pkg !== true;
}

function renderItems(items, showWhere) {
  const ul = $('items');
  ul.replaceChildren();
  $('empty').hidden = items.length > 0;
  items.forEach((item, index) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.className = 'item';
    button.dataset.index = index;
    // The type shows until the computer's picture arrives, and stays when it has none.
    const box = document.createElement('span');
    box.className = 'thumb-box';
    const kind = document.createElement('span');
    kind.className = 'kind';
    kind.textContent = isFolder(item) ? 'Folder' : extensionOf(item.path) || 'File';
    const img = document.createElement('img');
    img.className = 'thumb';
    img.alt = '';
    box.append(kind, img);
    const name = document.createElement('span');
    name.className = 'name';
    name.textContent = typeof item.display === 'string' && item.display ? item.display : basename(item.path);
    const meta = document.createElement('span');
    meta.className = 'meta';
    const date = Number(item.mod_date) ? new Date(Number(item.mod_date) * 1000).toLocaleDateString() : '';
    meta.textContent = [isFolder(item) ? 'Folder' : formatSize(item.size), date].filter(Boolean).join(' · ');
    button.append(box, name, meta);
    if (showWhere) {
      const where = document.createElement('span');
      where.className = 'where';
      where.textContent = parentOf(item.path);
      button.append(where);
    }
    button.addEventListener('click', () => activate(index));
    const li = document.createElement('li');
    li.append(button);
    ul.append(li);
    state.thumbs.watch(img, item);
  });
}

function renderPager(place, record) {
  const pages = Math.max(1, Number(record.num_pages) || 1);
  const total = Number(record.total_item_count) || 0;
  // The agent counts one page too many when the total is a multiple of the page size.
  const size = Number(record.page_size) || total || 1;
  const real = Math.max(1, Math.min(pages, Math.ceil(total / size)));
  $('pager').hidden = real <= 1;
  $('page-label').textContent = `Page ${place.page + 1} of ${real} (${total} items)`;
  $('page-prev').disabled = place.page <= 0;
  $('page-next').disabled = place.page + 1 >= real;
}

function activate(index) {
  const item = state.items[index];
  if (!item) return;
  if (isFolder(item)) go({ dir: item.path, page: 0, search: null }, { push: true });
  else openPreview(index);
}

function focusItem(index) {
  const buttons = $('items').querySelectorAll('.item');
  if (!buttons.length) return;
  buttons[Math.max(0, Math.min(buttons.length - 1, index))].focus();
}

function columns() {
  const buttons = [...$('items').querySelectorAll('.item')];
  if (buttons.length < 2) return 1;
  const top = buttons[0].offsetTop;
  const next = buttons.findIndex((b) => b.offsetTop !== top);
  return next < 0 ? buttons.length : next;
}

$('items').addEventListener('keydown', (event) => {
  const current = Number(document.activeElement?.dataset?.index ?? -1);
  const step = { ArrowDown: columns(), ArrowUp: -columns(), ArrowRight: 1, ArrowLeft: -1, Home: -Infinity, End: Infinity }[event.key];
  if (step !== undefined && current >= 0) {
    event.preventDefault();
    focusItem(Number.isFinite(step) ? current + step : step < 0 ? 0 : state.items.length - 1);
  }
});

document.addEventListener('keydown', (event) => {
  const typing = event.target.closest?.('input, select, textarea');
  if (!$('preview').hidden) {
    if (event.key === 'Escape') { event.preventDefault(); closePreview(); }
    else if (event.key === 'ArrowRight' && !typing) { event.preventDefault(); stepPreview(1); }
    else if (event.key === 'ArrowLeft' && !typing) { event.preventDefault(); stepPreview(-1); }
    return;
  }
  if (typing || $('browser').hidden || !state.place) return;
  if (event.key === '/') {
    event.preventDefault();
    $('search-text').focus();
  } else if ((event.key === 'Backspace' || (event.key === 'ArrowUp' && event.altKey)) && state.place.dir && !state.place.search) {
    event.preventDefault();
    const up = state.roots.includes(state.place.dir) ? '' : parentOf(state.place.dir);
    go({ dir: up, page: 0, search: null }, { push: true });
  }
});

$('page-prev').addEventListener('click', () => go({ ...state.place, page: state.place.page - 1 }, { push: true }));
$('page-next').addEventListener('click', () => go({ ...state.place, page: state.place.page + 1 }, { push: true }));

$('search').addEventListener('submit', (event) => {
  event.preventDefault();
  const text = $('search-text').value.trim();
  const type = $('search-type').value;
  const dir = state.place?.dir ?? '';
  // An empty search goes back to the folder it was made in.
  const search = text || type ? { text, type, names: $('search-names').checked } : null;
  go({ dir, page: 0, search }, { push: true });
});

addEventListener('popstate', (event) => {
  if (state.computer && event.state?.place) go(event.state.place);
});

// ---- preview, info, copy and download ----------------------------------------------------------------

let previewUrl = null;

function closePreview() {
  const pane = $('preview');
  if (pane.hidden) return;
  pane.hidden = true;
  if (previewUrl) URL.revokeObjectURL(previewUrl);
  previewUrl = null;
  focusItem(state.previewIndex);
  state.previewIndex = -1;
}

function stepPreview(direction) {
  for (let i = state.previewIndex + direction; i >= 0 && i < state.items.length; i += direction) {
    if (!isFolder(state.items[i])) return openPreview(i);
  }
}

function addInfo(dl, name, value) {
  if (!name || value === undefined || value === null || value === '') return;
  const dt = document.createElement('dt');
  dt.textContent = name;
  const dd = document.createElement('dd');
  dd.textContent = String(value);
  dl.append(dt, dd);
}

async function openPreview(index) {
  const item = state.items[index];
  const computer = state.computer;
  state.previewIndex = index;
  const generation = state.generation;
  const pane = $('preview');
  pane.hidden = false;
  pane.dataset.path = item.path;
  $('preview-name').textContent = item.display || basename(item.path);
  $('preview-image').removeAttribute('src');
  $('preview-image').alt = `Preview of ${item.display || basename(item.path)}`;
  $('preview-wait').hidden = false;
  $('preview-wait').textContent = 'Loading preview…';
  $('download-link').hidden = true;
  $('copy-button').disabled = false;
  $('preview-prev').disabled = index <= 0;
  $('preview-next').disabled = index >= state.items.length - 1;
  const dl = $('preview-info');
  dl.replaceChildren();
  addInfo(dl, 'Where', parentOf(item.path));
  addInfo(dl, 'Modified', Number(item.mod_date) ? new Date(Number(item.mod_date) * 1000).toLocaleString() : '');
  addInfo(dl, 'Details', item.extra_info);
  pane.focus();
  const current = () => state.previewIndex === index && state.generation === generation && !pane.hidden;

  // The computer drops the last extension of a preview's path: it names the picture's format.
  computer
    .ask({ request_type: 'preview', path: `${item.path}.jpg` })
    .then(({ image }) => {
      if (!current()) return;
      if (!image) {
        $('preview-wait').textContent = 'No preview for this item.';
        return;
      }
      if (previewUrl) URL.revokeObjectURL(previewUrl);
      previewUrl = URL.createObjectURL(new Blob([image], { type: 'image/jpeg' }));
      $('preview-image').src = previewUrl;
      $('preview-wait').hidden = true;
    })
    .catch((error) => {
      if (current()) $('preview-wait').textContent = error.message;
    });

  computer
    .ask({ request_type: 'info', path: item.path })
    .then(({ record }) => {
      if (!current() || !Array.isArray(record.info)) return;
      for (const line of record.info) addInfo(dl, line?.name, line?.value);
    })
    .catch((error) => {
      if (current()) addInfo(dl, 'Info', error.message);
    });
}

$('preview-close').addEventListener('click', closePreview);
$('preview-prev').addEventListener('click', () => stepPreview(-1));
$('preview-next').addEventListener('click', () => stepPreview(1));

$('copy-button').addEventListener('click', async () => {
  const item = state.items[state.previewIndex];
  if (!item) return;
  const computer = state.computer;
  $('copy-button').disabled = true;
  say(`Copying ${item.display || basename(item.path)} to the cloud folder…`);
  try {
    const { record } = await computer.ask({ request_type: 'copy_to_dropbox', path: item.path }, { lifetime: 120 });
    if (record.error) return say(String(record.error), { error: true });
    say(String(record.message ?? 'Copied.'));
    if (typeof record.matching_path_clipped === 'string' && !isFolder(item) && state.items[state.previewIndex] === item) {
      const link = $('download-link');
      link.href = relay.downloadUrl(computer.cloud, record.matching_path_clipped);
      link.download = basename(record.matching_path_clipped);
      link.textContent = `Download ${basename(record.matching_path_clipped)}`;
      link.hidden = false;
      link.focus();
    }
  } catch (error) {
    fail(error);
  } finally {
    $('copy-button').disabled = false;
  }
});

// ---- upload and move onto the computer ---------------------------------------------------------------

$('upload').addEventListener('change', async (event) => {
  const files = [...event.target.files];
  event.target.value = '';
  const computer = state.computer;
  const place = state.place;
  if (!computer || !files.length) return;
  // Into the folder on screen; from the roots or a search the computer picks its own downloads folder.
  const dest = place && !place.search && place.dir ? place.dir : '';
  for (const file of files) {
    try {
      say(`Uploading ${file.name}…`);
      const relative = await relay.upload(computer.cloud, file);
      if (!computer.storageFolder) throw new AgentError('bad_reply', `${computer.name} has not said where its cloud folder is.`);
      say(`Moving ${file.name} onto ${computer.name}…`);
      const fields = { request_type: 'move_from_dropbox', path: `${computer.storageFolder}/${relative.replace(/^\/+/, '')}` };
      if (dest) fields.dest_path = dest;
      const { record } = await computer.ask(fields, { lifetime: 120 });
      if (record.error) {
        say(String(record.error), { error: true });
        return;
      }
      say(String(record.message ?? 'Moved.'));
    } catch (error) {
      return fail(error);
    }
  }
  if (state.place === place && !place.search) {
    const message = $('status').textContent;
    await go(place);
    say(message);
  }
});

// ---- toolbar -----------------------------------------------------------------------------------------

function setView(grid) {
  $('items').classList.toggle('grid', grid);
  $('items').classList.toggle('list', !grid);
  $('view-toggle').textContent = grid ? 'List' : 'Grid';
  $('view-toggle').setAttribute('aria-pressed', String(grid));
  localStorage.setItem('vandrel.view', grid ? 'grid' : 'list');
}

$('view-toggle').addEventListener('click', () => setView(!$('items').classList.contains('grid')));
setView(localStorage.getItem('vandrel.view') === 'grid');

$('encrypt-all').addEventListener('change', (event) => {
  sessionStorage.setItem('vandrel.encryptAll', String(event.target.checked));
  if (state.computer) state.computer.encryptAll = event.target.checked;
  say(event.target.checked ? 'Every request is now sealed with the password.' : 'Requests go signed, not sealed.');
});

$('home').addEventListener('click', () => listComputers());

$('login-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  try {
    await relay.login($('token').value.trim());
    $('token').value = '';
    say('');
    await listComputers();
  } catch (error) {
    showLogin(error.status === 401 ? 'That access token is not right.' : error.message);
  }
});

$('password-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const computer = state.computer;
  const proof = await deriveProof(computer.id, $('password-input').value);
  $('password-input').value = '';
  await computer.setProof(proof);
  say('Checking the password…');
  try {
    // A search is the one request the computer answers even when the password is wrong.
    await computer.ask({ request_type: 'search', search_dir: '', result_page: 0 });
  } catch (error) {
    return error instanceof AgentError && error.code === 'auth' ? askPassword('Wrong password.') : fail(error);
  }
  sessionStorage.setItem(PROOF_KEY + computer.id, JSON.stringify(proof));
  say('');
  await openRoots();
});

async function start() {
  const token = new URLSearchParams(location.hash.slice(1)).get('token');
  if (token) {
    // The token is spent once; keeping it out of the address keeps it out of history and bookmarks.
    history.replaceState(null, '', location.pathname + location.search);
    try {
      await relay.login(token);
    } catch (error) {
      return showLogin(error.status === 401 ? 'The access token in the address is not right.' : error.message);
    }
  }
  await listComputers();
}

start();

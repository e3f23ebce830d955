// The device's account pages: one script for all of them.  Each page names itself in
// <body data-page="...">; start() checks the session, then runs that page's function.
// Every text that comes from the server (account names above all: they may hold any character
// but a few) reaches the page through textContent or value, never as markup.
'use strict';

const LOGIN_REFUSED = 'Login refused: wrong name or password, or the account is locked. ' +
  'After 3 failed logins an account is locked until a user manager unlocks it.';

// The library's error codes in words: the pages' one table.  Class 1 (sessions and rights)
// reuses the numbers below 200 for its own setup failures, so describe() looks those up here
// only for class 0.
const WORDS = {
  0: 'An account with this name already exists.',
  1: 'The password cannot be stored on the device.',
  2: 'This profile does not exist on the device.',
  3: 'The main account cannot be removed.',
  4: 'The main account cannot be disabled.',
  5: 'The account does not exist (any more).',
  6: 'No further account can be created: the device holds as many as it allows.',
  7: 'This name is not allowed. A name has 1 to 32 bytes, no spaces or control characters, ' +
     'no ":", "/" or ",", does not start with "+", "-" or "#" and is not all digits.',
  8: 'This account cannot be removed: it is your own or the main account.',
  9: 'A required value is missing.',
  11: 'The account files are busy. Try again in a moment.',
  18: 'The current password is wrong.',
  19: 'The new password is too long.',
  20: 'The new password does not meet the password rules.',
  21: 'The new password is not valid.',
  22: 'The new password is the same as the old one, or differs from it only in upper and lower case.',
  23: 'The new password is a palindrome.',
  25: 'The new password is too similar to the old one.',
  26: 'The new password contains the account name.',
  27: 'The new password contains words from the real name of the account.',
  28: 'The new password contains forbidden words.',
  29: 'The new password has too few digits.',
  30: 'The new password has too few uppercase letters.',
  31: 'The new password has too few lowercase letters.',
  32: 'The new password has too few characters other than letters and digits.',
  33: 'The new password is too short.',
  34: 'The new password is the old one rotated.',
  35: 'The new password mixes too few kinds of characters (lowercase, uppercase, digits, others).',
  36: 'The new password repeats the same character too often in a row.',
  37: 'The new password has too many characters of the same kind in a row.',
  38: 'The new password holds too long a sequence such as "abcd" or "4321".',
  39: 'The new password is too easy to guess: it is based on a dictionary word.',
  41: 'The account was changed by someone else meanwhile. The page now shows it as it is; check and try again.',
  43: 'The account is stored twice on the device and cannot be changed until that is repaired.',
  44: 'The account is stored only in part on the device and cannot be changed until that is repaired.',
  200: LOGIN_REFUSED,
  301: 'Your password must be changed first.',
  302: 'You are not allowed to do this.',
  305: 'System accounts cannot be changed here.',
};

// Whether the library's answer names a password rule (or a password it cannot store): such
// messages go next to the new-password field.
function aboutNewPassword(data) {
  return data.classCode === 0 && (data.errorCode === 1 || (data.errorCode >= 19 && data.errorCode <= 39));
}

function describe(status, data) {
  if (data && Number.isInteger(data.errorCode)) {
    const code = data.errorCode;
    if (data.classCode === 1 && code < 200) return `The device could not check the session (error 1/${code}).`;
    if (WORDS[code]) return WORDS[code];
    if (code >= 22 && code <= 39) return WORDS[20];
    return `The device refused the request (error ${data.classCode}/${code}).`;
  }
  if (data && typeof data.error === 'string') return `The server refused the request: ${data.error}.`;
  return `The server answered with status ${status}.`;
}

class ApiError extends Error {
  constructor(status, data) {
    super(describe(status, data));
    this.status = status;
    this.data = data || {};
  }
}

// The answer of /api/session (name, uid, profile, mustChange, csrf, can); its csrf goes with
// every change.
let session = null;

// Goes to another page; the promise never settles, so the caller stops where it is.
function leave(page) {
  location.replace(page);
  return new Promise(() => {});
}

// One API call: the parsed answer, or an ApiError.  A session that has ended sends the page to
// the login, one that must change its password first to the change page.
async function api(method, path, body) {
  const init = { method, credentials: 'same-origin', headers: {} };
  if (body !== undefined) {
    init.headers['Content-Type'] = 'application/json';
    init.body = JSON.stringify(body);
  }
  if (method !== 'GET' && session) init.headers['X-CSRF-Token'] = session.csrf;
  const response = await fetch(path, init);
  const text = await response.text();
  let data = null;
  try {
    data = text ? JSON.parse(text) : null;
  } catch (error) {
    data = null;
  }
  if (response.ok) return data;
  if (path !== '/api/login') {
    if (response.status === 401) return leave('index.html?ended=1');
    if (response.status === 403 && data && data.classCode === 1 && data.errorCode === 301) {
      return leave('change-password.html');
    }
  }
  throw new ApiError(response.status, data);
}

// --- small DOM helpers ---------------------------------------------------------------------------

const $ = (selector) => document.querySelector(selector);

function element(tag, text, className) {
  const node = document.createElement(tag);
  if (text !== undefined) node.textContent = text;
  if (className) node.className = className;
  return node;
}

// An element with attributes set as such (id, for, href, aria-*), and optionally its text.
function tagged(tag, attributes, text) {
  const node = element(tag, text);
  for (const [name, value] of Object.entries(attributes)) node.setAttribute(name, value);
  return node;
}

function button(text, className, onClick) {
  const node = element('button', text, className);
  node.type = 'button';
  node.addEventListener('click', onClick);
  return node;
}

// The page's message line; kind "error" or "ok".
function say(text, kind) {
  const line = $('#message');
  line.textContent = text;
  line.className = kind || '';
}

// A message for the page after the next one loads (e.g. "removed" on the list).
function notice(text) {
  sessionStorage.setItem('notice', text);
}

function showNotice() {
  const text = sessionStorage.getItem('notice');
  if (text) say(text, 'ok');
  sessionStorage.removeItem('notice');
}

// Shows `text` under the field `id` (its element `id`-error), or clears it.
function fieldError(id, text) {
  const field = document.getElementById(id);
  const line = document.getElementById(`${id}-error`);
  line.textContent = text || '';
  if (text) field.setAttribute('aria-invalid', 'true');
  else field.removeAttribute('aria-invalid');
}

function clearErrors(form) {
  form.querySelectorAll('.field-error').forEach((line) => { line.textContent = ''; });
  form.querySelectorAll('[aria-invalid]').forEach((field) => field.removeAttribute('aria-invalid'));
  say('');
}

// Runs a form's action on submit (Enter in any field does it too), with its submit button off
// meanwhile; an error the action leaves goes to the message line.
function onSubmit(form, action) {
  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    const submit = form.querySelector('button[type=submit]');
    submit.disabled = true;
    clearErrors(form);
    try {
      await action();
    } catch (error) {
      say(error.message, 'error');
    } finally {
      submit.disabled = false;
    }
  });
}

function stateText(account) {
  const parts = [account.active ? 'enabled' : 'disabled'];
  if (account.locked) parts.push('locked');
  if (account.passwordExpired) parts.push('password expired');
  return parts.join(', ');
}

function fillProfiles(select, profiles, selected) {
  select.replaceChildren();
  for (const profile of profiles) {
    const option = element('option', profile.name);
    option.value = String(profile.id);
    option.selected = profile.id === selected;
    select.append(option);
  }
}

// --- pages ---------------------------------------------------------------------------------------

async function loginPage() {
  // Already logged in: straight on.
  const probe = await fetch('/api/session', { credentials: 'same-origin' });
  if (probe.ok) {
    const current = await probe.json();
    return leave(current.mustChange ? 'change-password.html' : 'accounts.html');
  }
  if (new URLSearchParams(location.search).has('ended')) say('Your session has ended. Please log in.');
  onSubmit($('#login-form'), async () => {
    try {
      const answer = await api('POST', '/api/login', { name: $('#name').value, password: $('#password').value });
      return leave(answer.mustChange ? 'change-password.html' : 'accounts.html');
    } catch (error) {
      $('#password').value = '';
      $('#password').focus();
      say(error.status === 401 ? LOGIN_REFUSED : error.message, 'error');
    }
  });
}

async function accountsPage() {
  const body = $('#accounts tbody');
  const load = async () => {
    const accounts = await api('GET', '/api/accounts');
    body.replaceChildren(...accounts.map(row));
  };
  const row = (account) => {
    const tr = document.createElement('tr');
    tr.dataset.name = account.name;
    tr.dataset.uid = String(account.uid);
    const link = element('a', account.name);
    link.href = `account.html?uid=${encodeURIComponent(account.uid)}`;
    const nameCell = element('td');
    nameCell.append(link);
    const actions = element('td', undefined, 'actions');
    // One's own password is changed on "My account", with the current one.
    const own = account.uid === session.uid;
    if (account.can.update || (account.can.password && !own)) {
      actions.append(button('Edit', 'edit', () => { location.href = link.href; }));
    }
    if (account.locked && account.can.unlock) {
      actions.append(button('Unlock', 'unlock', () => act(
        () => api('POST', `/api/accounts/${account.uid}/unlock`, { name: account.name }),
        `The account “${account.name}” is unlocked.`)));
    }
    if (account.can.remove) {
      actions.append(button('Remove', 'remove', () => {
        if (!confirm(`Remove the account “${account.name}”?`)) return;
        act(() => api('DELETE', `/api/accounts/${account.uid}`, { name: account.name }),
          `The account “${account.name}” is removed.`);
      }));
    }
    tr.append(nameCell, element('td', account.profile), element('td', stateText(account)), actions);
    return tr;
  };
  // One row action, then the list again (also after a refusal: it may be out of date).
  const act = async (call, done) => {
    try {
      await call();
      say(done, 'ok');
    } catch (error) {
      say(error.message, 'error');
    }
    await load();
  };
  try {
    await load();
  } catch (error) {
    say(error.message, 'error');
  }
}

async function accountPage() {
  const uid = new URLSearchParams(location.search).get('uid');
  if (!/^[0-9]+$/.test(uid || '')) {
    say('No account chosen. Pick one from the list of accounts.', 'error');
    return;
  }
  const path = `/api/accounts/${uid}`;
  let account = null;
  let profiles = [];

  const show = (current) => {
    account = current;
    document.title = `${account.name} – device accounts`;
    $('#account-name').textContent = account.name;
    $('#detail-name').textContent = account.name;
    $('#detail-uid').textContent = String(account.uid);
    $('#detail-profile').textContent = account.profile;
    $('#detail-state').textContent = stateText(account);
    $('#details').hidden = false;
    const can = account.can;
    $('#rename-form').hidden = !can.update;
    $('#rename-name').value = account.name;
    $('#profile-form').hidden = !can.update;
    fillProfiles($('#profile-select'), profiles, account.profileId);
    $('#toggle-active').hidden = !can.update;
    $('#toggle-active').textContent = account.active ? 'Disable account' : 'Enable account';
    $('#unlock').hidden = !(can.unlock && account.locked);
    $('#state-actions').hidden = $('#toggle-active').hidden && $('#unlock').hidden;
    $('#reset-form').hidden = !can.password || account.uid === session.uid;
    $('#own-password').hidden = account.uid !== session.uid;
    $('#remove-section').hidden = !can.remove;
  };

  // One change: the server's answer is the account as it now is.  A refusal shows its words; when
  // the account moved on meanwhile (or is gone), the page reloads it first.
  const change = async (call, done, fieldId) => {
    try {
      show(await call());
      say(done, 'ok');
    } catch (error) {
      if (fieldId && aboutNewPassword(error.data)) {
        fieldError(fieldId, error.message);
        document.getElementById(fieldId).focus();
        return;
      }
      if (error.data.errorCode === 41 || error.status === 404) {
        try {
          show(await api('GET', path));
        } catch (gone) {
          say(gone.message, 'error');
          return;
        }
      }
      say(error.message, 'error');
    }
  };

  onSubmit($('#rename-form'), () => change(
    () => api('PATCH', path, { name: account.name, newName: $('#rename-name').value }),
    'The account is renamed.'));
  onSubmit($('#profile-form'), () => change(
    () => api('PATCH', path, { name: account.name, profileId: Number($('#profile-select').value) }),
    'The profile is changed.'));
  $('#toggle-active').addEventListener('click', () => change(
    () => api('PATCH', path, { name: account.name, active: !account.active }),
    account.active ? 'The account is disabled.' : 'The account is enabled.'));
  $('#unlock').addEventListener('click', () => change(
    () => api('POST', `${path}/unlock`, { name: account.name }), 'The account is unlocked.'));
  onSubmit($('#reset-form'), async () => {
    await change(() => api('POST', `${path}/password`, {
      name: account.name, password: $('#reset-password').value, mustChange: $('#reset-must-change').checked,
    }), 'The password is set.', 'reset-password');
    if (!$('#reset-password').getAttribute('aria-invalid')) $('#reset-password').value = '';
  });
  $('#remove').addEventListener('click', async () => {
    if (!confirm(`Remove the account “${account.name}”?`)) return;
    try {
      await api('DELETE', path, { name: account.name });
      notice(`The account “${account.name}” is removed.`);
      return leave('accounts.html');
    } catch (error) {
      say(error.message, 'error');
    }
  });

  try {
    [account, profiles] = await Promise.all([api('GET', path), api('GET', '/api/profiles')]);
    show(account);
  } catch (error) {
    say(error.message, 'error');
  }
}

async function createPage() {
  if (!session.can.create) {
    $('#create-form').hidden = true;
    say(WORDS[302], 'error');
    return;
  }
  try {
    fillProfiles($('#new-profile'), await api('GET', '/api/profiles'), -1);
  } catch (error) {
    say(error.message, 'error');
  }
  onSubmit($('#create-form'), async () => {
    try {
      const created = await api('POST', '/api/accounts', {
        name: $('#new-name').value,
        profileId: Number($('#new-profile').value),
        password: $('#new-password').value,
        mustChange: $('#new-must-change').checked,
        active: $('#new-active').checked,
      });
      notice(`The account “${created.name}” is created.`);
      return leave(`account.html?uid=${encodeURIComponent(created.uid)}`);
    } catch (error) {
      const code = error.data.errorCode;
      if (aboutNewPassword(error.data)) {
        fieldError('new-password', error.message);
        $('#new-password').focus();
      } else if (error.data.classCode === 0 && (code === 0 || code === 7)) {
        fieldError('new-name', error.message);
        $('#new-name').focus();
      } else {
        throw error;
      }
    }
  });
}

// The holder's own password change, on "My account" and on the forced change page.  Its fields
// are built here into the page's #password-form (after what the page put there, e.g. a heading);
// `done` runs with the renewed session.
const PASSWORD_FIELDS = [
  { id: 'current', label: 'Current password', autocomplete: 'current-password' },
  { id: 'new-password', label: 'New password', autocomplete: 'new-password' },
  { id: 'confirm', label: 'New password again', autocomplete: 'new-password' },
];

function passwordForm(done) {
  const form = $('#password-form');
  for (const { id, label, autocomplete } of PASSWORD_FIELDS) {
    form.append(
      tagged('label', { for: id }, label),
      tagged('input', { id, type: 'password', autocomplete, required: '', 'aria-describedby': `${id}-error` }),
      tagged('p', { id: `${id}-error`, class: 'field-error' }));
  }
  form.append(tagged('button', { id: 'change', type: 'submit' }, 'Change password'));
  onSubmit(form, async () => {
    if ($('#new-password').value !== $('#confirm').value) {
      fieldError('confirm', 'The two new passwords differ.');
      $('#confirm').focus();
      return;
    }
    try {
      session = await api('POST', '/api/me/password', { current: $('#current').value, password: $('#new-password').value });
    } catch (error) {
      if (error.data.classCode === 0 && error.data.errorCode === 18) {
        fieldError('current', error.message);
        $('#current').focus();
      } else if (aboutNewPassword(error.data)) {
        fieldError('new-password', error.message);
        $('#new-password').focus();
      } else {
        throw error;
      }
      return;
    }
    for (const { id } of PASSWORD_FIELDS) document.getElementById(id).value = '';
    await done();
  });
}

function mePage() {
  $('#me-name').textContent = session.name;
  $('#me-uid').textContent = String(session.uid);
  $('#me-profile').textContent = session.profile;
  passwordForm(() => say('Your password is changed.', 'ok'));
}

function changePasswordPage() {
  passwordForm(() => {
    notice('Your password is changed.');
    return leave('accounts.html');
  });
  // The page is there for this form alone.
  $('#current').focus();
}

async function auditPage() {
  const severities = { 4: 'warning', 5: 'notice', 7: 'debug' };
  const categories = { 1: 'general', 8: 'account', 9: 'session' };
  const when = (time) => (typeof time === 'number' ? new Date(time * 1000).toISOString().replace('T', ' ').slice(0, 19) : String(time));
  const load = async () => {
    const events = await api('GET', '/api/audit');
    $('#audit tbody').replaceChildren(...events.map((event) => {
      const tr = document.createElement('tr');
      tr.append(
        element('td', when(event.time)),
        element('td', severities[event.severity] || String(event.severity)),
        element('td', `${categories[event.category] || event.category} ${event.id}`),
        element('td', event.user || ''),
        element('td', event.ip || ''),
        element('td', event.text || ''));
      return tr;
    }));
  };
  const refresh = () => load().then(() => say('')).catch((error) => say(error.message, 'error'));
  $('#refresh').addEventListener('click', refresh);
  if (!session.can.manage) {
    $('#audit').hidden = $('#refresh').hidden = true;
    say(WORDS[302], 'error');
    return;
  }
  await refresh();
}

const PAGES = {
  accounts: accountsPage,
  account: accountPage,
  create: createPage,
  me: mePage,
  'change-password': changePasswordPage,
  audit: auditPage,
};

// The main navigation, in the order shown: a link appears only when `shown` holds for the session.
const NAV = [
  { href: 'accounts.html', label: 'Accounts', shown: () => true },
  { href: 'create.html', label: 'New account', shown: (current) => current.can.create },
  { href: 'me.html', label: 'My account', shown: () => true },
  { href: 'audit.html', label: 'Audit log', shown: (current) => current.can.manage },
];

// The header, built into the page's <header>: the name of the pages, the links of NAV into the
// page's <nav> (each with the id nav-<page>; the page's own marked as current), who is logged
// in and the logout button.  A page without a <nav> (the forced change) has nowhere to go, so
// its name there is no link either.
function showHeader() {
  const header = $('body > header');
  const nav = header.querySelector('nav');
  header.prepend(nav ? tagged('a', { class: 'brand', href: 'accounts.html' }, 'Device accounts')
    : element('span', 'Device accounts', 'brand'));
  if (nav) {
    const here = `${document.body.dataset.page}.html`;
    nav.replaceChildren(...NAV.filter((entry) => entry.shown(session)).map((entry) => {
      const link = tagged('a', { id: `nav-${entry.href.replace(/\.html$/, '')}`, href: entry.href }, entry.label);
      if (entry.href === here) link.setAttribute('aria-current', 'page');
      return link;
    }));
  }
  const logout = button('Log out', '', async () => {
    try {
      await api('POST', '/api/logout');
    } finally {
      sessionStorage.clear();
      location.replace('index.html');
    }
  });
  logout.id = 'logout';
  header.append(tagged('span', { id: 'who' }, `${session.name} (${session.profile})`), logout);
}

async function start() {
  const page = document.body.dataset.page;
  if (page === 'login') return loginPage();
  session = await api('GET', '/api/session');
  if (session.mustChange && page !== 'change-password') return leave('change-password.html');
  showHeader();
  showNotice();
  return PAGES[page]();
}

start().catch((error) => say(error.message, 'error'));

// The style sheet and the script every dashboard page shares.
#include "dashboard/datad_dashboard.h"

namespace vostra::data {

std::string DatadDashboard::getDashboardCss() {
    return R"CSS(
:root{--bg:#f5f6f8;--panel:#fff;--text:#1d2330;--muted:#5b6475;--line:#d9dde5;--accent:#1f5fbf;
--accent-text:#fff;--ok:#1b7a3d;--warn:#9a6200;--bad:#b42318;--radius:8px;font-size:15px}
*{box-sizing:border-box}
body{margin:0;font-family:system-ui,-apple-system,"Segoe UI",Roboto,sans-serif;background:var(--bg);color:var(--text);line-height:1.45}
.skip{position:absolute;left:-999px;top:0;background:var(--accent);color:var(--accent-text);padding:8px;z-index:10}
.skip:focus{left:8px}
.container{display:flex;min-height:100vh}
.sidebar{width:220px;flex:none;background:#17202f;color:#dfe5ef;padding:16px 0}
.brand{font-weight:700;font-size:1.1rem;padding:0 20px 16px}.brand span{display:block;font-weight:400;color:#aab4c5;font-size:.9rem}
.sidebar ul{list-style:none;margin:0;padding:0}
.sidebar a{display:flex;gap:10px;align-items:center;color:#dfe5ef;text-decoration:none;padding:9px 20px}
.sidebar a:hover,.sidebar a:focus-visible{background:#24314a;outline:none}
.sidebar a.active{background:var(--accent);color:#fff}
.sidebar svg{width:20px;height:20px;fill:none;stroke:currentColor;stroke-width:2;stroke-linecap:round;stroke-linejoin:round}
.main-content{flex:1;min-width:0;padding:24px 32px}
.page-header{display:flex;flex-wrap:wrap;justify-content:space-between;align-items:center;gap:12px;margin-bottom:20px}
.page-header h1{margin:0;font-size:1.6rem}
.muted{color:var(--muted)}
.cards{display:grid;grid-template-columns:repeat(auto-fill,minmax(170px,1fr));gap:12px;margin-bottom:20px}
.card,.panel{background:var(--panel);border:1px solid var(--line);border-radius:var(--radius);padding:16px}
.card .label{color:var(--muted);font-size:.85rem}.card .value{font-size:1.5rem;font-weight:600;margin-top:4px}
.panel{margin-bottom:20px}.panel h2{margin:0 0 12px;font-size:1.15rem}
.table-wrap{overflow-x:auto}
table{width:100%;border-collapse:collapse;font-size:.92rem}
th,td{text-align:left;padding:7px 9px;border-bottom:1px solid var(--line);vertical-align:top}
th{color:var(--muted);font-weight:600;background:#fafbfc}
td.num,th.num{text-align:right;font-variant-numeric:tabular-nums}
.badge{display:inline-block;border-radius:999px;padding:1px 9px;font-size:.8rem;font-weight:600;background:#e8ebf0}
.badge.ok{background:#dff3e6;color:var(--ok)}.badge.bad{background:#fde7e5;color:var(--bad)}.badge.warn{background:#fff1d6;color:var(--warn)}
form.grid{display:grid;grid-template-columns:repeat(auto-fill,minmax(200px,1fr));gap:10px 14px;align-items:end}
label{display:block;font-size:.85rem;color:var(--muted);margin-bottom:3px}
input,select,textarea{width:100%;font:inherit;padding:7px 9px;border:1px solid #b9c0cc;border-radius:6px;background:#fff;color:var(--text)}
textarea{min-height:90px;font-family:ui-monospace,Menlo,Consolas,monospace;font-size:.9rem}
input:focus,select:focus,textarea:focus,button:focus-visible{outline:3px solid #9cc0f5;outline-offset:1px}
button{font:inherit;border:1px solid #b9c0cc;background:#fff;color:var(--text);border-radius:6px;padding:7px 13px;cursor:pointer}
button.primary{background:var(--accent);border-color:var(--accent);color:var(--accent-text)}
button.danger{color:var(--bad);border-color:#e4b4ae}
button:disabled{opacity:.55;cursor:default}
.actions{display:flex;flex-wrap:wrap;gap:8px;margin-top:10px}
.row-actions{display:flex;gap:6px;flex-wrap:wrap}
pre{background:#0f1724;color:#e2e8f0;padding:12px;border-radius:6px;overflow:auto;max-height:420px;font-size:.85rem}
.unavailable{border:1px dashed #b9c0cc;border-radius:var(--radius);padding:18px;color:var(--muted);background:#fafbfc}
.empty{color:var(--muted);padding:8px 0}
.spaced{margin-top:18px}
[role=tablist]{display:flex;flex-wrap:wrap;gap:4px;border-bottom:1px solid var(--line);margin-bottom:14px}
[role=tab]{border:none;border-bottom:3px solid transparent;border-radius:0;background:none;padding:8px 12px}
[role=tab][aria-selected=true]{border-bottom-color:var(--accent);font-weight:600}
.toasts{position:fixed;right:16px;bottom:16px;display:flex;flex-direction:column;gap:8px;z-index:20;max-width:min(420px,90vw)}
.toast{background:#17202f;color:#fff;padding:10px 14px;border-radius:6px;box-shadow:0 4px 14px rgba(0,0,0,.2)}
.toast.error{background:var(--bad)}.toast.ok{background:var(--ok)}
dialog{border:1px solid var(--line);border-radius:var(--radius);padding:20px;max-width:440px;width:92vw}
dialog::backdrop{background:rgba(15,23,36,.45)}
dialog h2{margin-top:0}
.crumbs{display:flex;flex-wrap:wrap;gap:6px;align-items:center;margin-bottom:10px}
.link{background:none;border:none;color:var(--accent);padding:0;text-decoration:underline;cursor:pointer}
@media (max-width:760px){.container{flex-direction:column}.sidebar{width:auto;padding:8px 0}
.sidebar ul{display:flex;flex-wrap:wrap}.sidebar a{padding:8px 12px}.brand{padding:4px 12px 8px}
.main-content{padding:16px}.page-header h1{font-size:1.3rem}}
)CSS";
}

std::string DatadDashboard::getDashboardJs() {
    return R"JS(
'use strict';
const KEY_STORE = 'vostra-datad-api-key';
function apiUrl(path) {
  const base = window.COMPONENT_API_BASE || '';
  return base + (path.startsWith('/api/') ? path : '/api/v1' + path);
}
function esc(value) {
  return String(value ?? '').replace(/[&<>"']/g, c => ({'&':'&amp;','<':'&lt;','>':'&gt;','"':'&quot;',"'":'&#39;'}[c]));
}
function toast(message, kind) {
  const box = document.createElement('div');
  box.className = 'toast' + (kind ? ' ' + kind : '');
  box.setAttribute('role', kind === 'error' ? 'alert' : 'status');
  box.textContent = message;
  document.getElementById('toasts').appendChild(box);
  setTimeout(() => box.remove(), kind === 'error' ? 8000 : 4000);
}
let keyRequest = null;
// Asks once for a key, however many calls are waiting for it.
function askForKey() {
  if (keyRequest) return keyRequest;
  const dialog = document.getElementById('key-dialog');
  const input = document.getElementById('key-input');
  keyRequest = new Promise(resolve => {
    dialog.addEventListener('close', () => {
      if (input.value) sessionStorage.setItem(KEY_STORE, input.value.trim());
      input.value = '';
      keyRequest = null;
      resolve();
    }, {once: true});
    dialog.showModal();
    input.focus();
  });
  return keyRequest;
}
// fetch() with the key, asking for one when the worker wants it.
async function apiFetch(path, options = {}) {
  for (let attempt = 0; ; attempt++) {
    const headers = Object.assign({}, options.headers || {});
    const key = sessionStorage.getItem(KEY_STORE);
    if (key) headers['X-API-Key'] = key;
    const response = await fetch(apiUrl(path), Object.assign({}, options, {headers}));
    if (response.status !== 401 || attempt >= 2) return response;
    if (key) sessionStorage.removeItem(KEY_STORE);
    await askForKey();
  }
}
async function api(method, path, body) {
  const options = {method, headers: {}};
  if (body !== undefined) {
    options.headers['Content-Type'] = 'application/json';
    options.body = JSON.stringify(body);
  }
  const response = await apiFetch(path, options);
  const text = await response.text();
  let data = {};
  try { data = text ? JSON.parse(text) : {}; } catch (e) { data = {text}; }
  if (!response.ok) {
    const error = new Error((data && data.error) || ('HTTP ' + response.status));
    error.status = response.status;
    error.data = data;
    throw error;
  }
  return data;
}
// A route this worker does not serve (or has turned off) gets a clear
// state instead of an error; anything else is reported as a toast.
function showFailure(element, error) {
  if (error.status === 404 || error.status === 503 || error.status === 403) {
    element.innerHTML = '<div class="unavailable" role="status"><strong>Not available on this worker.</strong> ' +
      esc(error.message) + '</div>';
    return;
  }
  element.innerHTML = '<div class="unavailable" role="status">Could not load: ' + esc(error.message) + '</div>';
  toast(error.message, 'error');
}
async function guarded(action, success) {
  try {
    const result = await action();
    if (success) toast(success, 'ok');
    return result;
  } catch (error) {
    toast(error.message, 'error');
    return undefined;
  }
}
function table(columns, rows, empty) {
  if (!rows.length) return '<p class="empty">' + esc(empty || 'Nothing here yet.') + '</p>';
  let html = '<div class="table-wrap"><table><thead><tr>';
  for (const c of columns) html += '<th scope="col"' + (c.num ? ' class="num"' : '') + '>' + esc(c.title) + '</th>';
  html += '</tr></thead><tbody>';
  for (const row of rows) {
    html += '<tr>';
    for (const c of columns) {
      const value = c.html ? c.html(row) : esc(typeof c.key === 'function' ? c.key(row) : row[c.key]);
      html += '<td' + (c.num ? ' class="num"' : '') + '>' + value + '</td>';
    }
    html += '</tr>';
  }
  return html + '</tbody></table></div>';
}
function badge(text) {
  const value = String(text || '').toLowerCase();
  const kind = /^(healthy|connected|ok|succeeded|active|true|running|synced)$/.test(value) ? 'ok'
    : /(error|fail|unhealthy|disconnected|false|timed_out)/.test(value) ? 'bad' : 'warn';
  return '<span class="badge ' + kind + '">' + esc(text) + '</span>';
}
function bytes(n) {
  n = Number(n) || 0;
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let i = 0;
  while (n >= 1024 && i < units.length - 1) { n /= 1024; i++; }
  return (i ? n.toFixed(1) : n) + ' ' + units[i];
}
// Times come as milliseconds since 1970 or as text.
function when(value) {
  if (value === undefined || value === null || value === '') return '';
  return typeof value === 'number' ? new Date(value).toLocaleString() : String(value);
}
function duration(seconds) {
  seconds = Number(seconds) || 0;
  const d = Math.floor(seconds / 86400), h = Math.floor(seconds % 86400 / 3600), m = Math.floor(seconds % 3600 / 60);
  return (d ? d + 'd ' : '') + (d || h ? h + 'h ' : '') + m + 'm ' + (seconds % 60) + 's';
}
function formData(form) {
  const data = {};
  for (const [name, value] of new FormData(form).entries()) if (value !== '') data[name] = value;
  return data;
}
// Tabs with arrow keys between them, as the ARIA pattern has it.
function setupTabs(root) {
  for (const list of (root || document).querySelectorAll('[role=tablist]')) {
    const tabs = [...list.querySelectorAll('[role=tab]')];
    const select = tab => {
      for (const other of tabs) {
        const on = other === tab;
        other.setAttribute('aria-selected', on);
        other.tabIndex = on ? 0 : -1;
        document.getElementById(other.getAttribute('aria-controls')).hidden = !on;
      }
      tab.dispatchEvent(new CustomEvent('tab-selected', {bubbles: true}));
    };
    tabs.forEach((tab, i) => {
      tab.addEventListener('click', () => select(tab));
      tab.addEventListener('keydown', event => {
        const step = event.key === 'ArrowRight' ? 1 : event.key === 'ArrowLeft' ? -1 : 0;
        if (!step) return;
        const next = tabs[(i + step + tabs.length) % tabs.length];
        next.focus();
        select(next);
      });
    });
    if (tabs.length) select(tabs[0]);
  }
}
function base64Of(buffer) {
  const bytes = new Uint8Array(buffer);
  let binary = '';
  for (let i = 0; i < bytes.length; i += 0x8000) binary += String.fromCharCode.apply(null, bytes.subarray(i, i + 0x8000));
  return btoa(binary);
}
)JS";
}

}  // namespace vostra::data

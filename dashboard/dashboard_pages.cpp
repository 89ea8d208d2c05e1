// Each page's main section: its markup and the script that fills it from
// the API once the shared script (in the footer) is there.
#include "dashboard/dashboard_parts.h"

namespace vostra::data {

const char* const kOverviewMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>Data Worker Overview</h1>
<span class="muted" id="refreshed" aria-live="polite"></span></div>
<section class="cards" id="cards" aria-label="Figures"></section>
<section class="panel"><h2>Data sources</h2><div id="sources"><p class="empty">Loading…</p></div></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const cards = document.getElementById('cards');
  const sources = document.getElementById('sources');
  const card = (label, value) => '<div class="card"><div class="label">' + esc(label) + '</div><div class="value">' + value + '</div></div>';
  async function refresh() {
    try {
      const [health, metrics] = await Promise.all([api('GET', '/health'), api('GET', '/metrics')]);
      cards.innerHTML = card('Status', badge(health.status)) + card('Uptime', esc(duration(health.uptime_seconds))) +
        card('Sources', esc(health.healthy_sources + ' / ' + health.total_sources) + '<span class="muted"> healthy</span>') +
        card('Queries', esc(metrics.total_queries)) + card('Statements', esc(metrics.total_executes)) +
        card('Errors', esc(metrics.total_errors));
      sources.innerHTML = table([
        {title: 'Source', key: 'id'}, {title: 'Name', key: 'name'}, {title: 'Status', html: s => badge(s.status)},
        {title: 'In use', key: 'pool_in_use', num: true}, {title: 'Available', key: 'pool_available', num: true},
        {title: 'Pool size', key: 'pool_size', num: true}, {title: 'Queries', key: 'queries_executed', num: true},
        {title: 'Failed', key: 'queries_failed', num: true},
        {title: 'Avg ms', key: s => Number(s.avg_query_time_ms || 0).toFixed(2), num: true},
        {title: 'Last error', key: 'last_error'}], metrics.sources || [], 'No data sources yet: add one on the Databases page.');
      document.getElementById('refreshed').textContent = 'Updated ' + new Date().toLocaleTimeString();
    } catch (error) { showFailure(sources, error); }
  }
  refresh();
  setInterval(refresh, 5000);
});
</script>
)HTML";

const char* const kDatabasesMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>Database Sources</h1></div>
<section class="panel"><h2>Add a source</h2>
<form id="add-source" class="grid">
<div><label for="src-id">Id</label><input id="src-id" name="id" required></div>
<div><label for="src-type">Type</label><select id="src-type" name="type">
<option value="sqlite">SQLite</option><option value="postgresql">PostgreSQL</option><option value="mysql">MySQL / MariaDB</option></select></div>
<div><label for="src-access">Access</label><select id="src-access" name="access_mode">
<option value="readonly">Read only</option><option value="readwrite">Read and write</option></select></div>
<div data-for="sqlite"><label for="src-path">File path</label><input id="src-path" name="path" placeholder="/var/lib/vostra/db.sqlite"></div>
<div data-for="server"><label for="src-host">Host</label><input id="src-host" name="host" placeholder="127.0.0.1"></div>
<div data-for="server"><label for="src-port">Port</label><input id="src-port" name="port" type="number" min="1" max="65535"></div>
<div data-for="server"><label for="src-db">Database</label><input id="src-db" name="database"></div>
<div data-for="server"><label for="src-user">User</label><input id="src-user" name="username" autocomplete="off"></div>
<div data-for="server"><label for="src-pass">Password</label><input id="src-pass" name="password" type="password" autocomplete="new-password"></div>
<div><button type="submit" class="primary">Add source</button></div>
</form></section>
<section class="panel"><h2>Run a query</h2>
<form id="query-form">
<div class="grid" style="display:grid;grid-template-columns:minmax(160px,260px);gap:10px">
<div><label for="query-source">Source</label><select id="query-source" name="source_id" required></select></div></div>
<label for="query-sql" style="margin-top:10px">SQL</label><textarea id="query-sql" name="sql" required>SELECT 1 AS one</textarea>
<div class="actions"><button type="submit" class="primary">Run</button>
<label style="display:flex;gap:6px;align-items:center;margin:0"><input type="checkbox" id="query-execute" style="width:auto"> Statement (no rows)</label></div>
</form><div id="query-result" aria-live="polite"></div></section>
<section class="panel"><h2>Sources</h2><div id="source-list"><p class="empty">Loading…</p></div></section>

</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const form = document.getElementById('add-source');
  const list = document.getElementById('source-list');
  const picker = document.getElementById('query-source');
  function showFields() {
    const sqlite = form.type.value === 'sqlite';
    for (const box of form.querySelectorAll('[data-for]')) box.hidden = (box.dataset.for === 'sqlite') !== sqlite;
  }
  form.type.addEventListener('change', showFields);
  showFields();
  async function load() {
    try {
      const sources = await api('GET', '/data/sources');
      list.innerHTML = table([{title: 'Id', key: 'id'}, {title: 'Status', html: s => badge(s.status)},
        {title: 'Pool', key: s => s.pool_in_use + ' / ' + s.pool_size}, {title: 'Queries', key: 'queries_executed', num: true},
        {title: 'Last error', key: 'last_error'},
        {title: 'Actions', html: s => '<div class="row-actions"><button data-test="' + esc(s.id) + '">Test</button>' +
          '<button class="danger" data-remove="' + esc(s.id) + '">Remove</button></div>'}], sources, 'No sources yet.');
      const chosen = picker.value;
      picker.innerHTML = sources.map(s => '<option>' + esc(s.id) + '</option>').join('');
      if (chosen) picker.value = chosen;
    } catch (error) { showFailure(list, error); }
  }
  list.addEventListener('click', async event => {
    const test = event.target.dataset.test, remove = event.target.dataset.remove;
    if (test) await guarded(async () => {
      const answer = await api('POST', '/data/sources/' + encodeURIComponent(test) + '/test');
      toast(test + ': ' + (answer.success === false ? 'not reachable' : 'reachable'), answer.success === false ? 'error' : 'ok');
    });
    if (remove && confirm('Remove source ' + remove + '?')) {
      await guarded(() => api('DELETE', '/data/sources/' + encodeURIComponent(remove)), 'Removed ' + remove);
      load();
    }
  });
  form.addEventListener('submit', async event => {
    event.preventDefault();
    const body = formData(form);
    if (body.port) body.port = Number(body.port);
    if (await guarded(() => api('POST', '/data/sources', body), 'Added ' + body.id) !== undefined) {
      form.reset();
      showFields();
      await load();
      picker.value = body.id;
    }
  });
  document.getElementById('query-form').addEventListener('submit', async event => {
    event.preventDefault();
    const out = document.getElementById('query-result');
    const execute = document.getElementById('query-execute').checked;
    const body = {source_id: picker.value, sql: document.getElementById('query-sql').value};
    try {
      const result = await api('POST', execute ? '/data/execute' : '/data/query', body);
      if (result.success === false) throw new Error(result.error || 'The statement failed');
      const columns = (result.columns || []).map(c => ({title: c.name || c, key: c.name || c}));
      out.innerHTML = '<p class="muted">' + esc((execute ? result.affected_rows + ' rows affected' : result.row_count + ' rows')) +
        ' in ' + esc(Number(result.execution_time_ms || 0).toFixed(2)) + ' ms</p>' + (execute ? '' : table(columns, result.rows || [], 'No rows.'));
    } catch (error) {
      out.innerHTML = '<div class="unavailable" role="alert">' + esc(error.message) + '</div>';
      toast(error.message, 'error');
    }
  });
  load();
});
</script>
)HTML";

const char* const kStorageMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>Storage Management</h1></div>
<section class="panel">
<form id="where" class="grid">
<div><label for="tenant">Tenant</label><input id="tenant" name="tenant" value="default" required></div>
<div><label for="folder">Folder</label><input id="folder" name="folder" placeholder="(top)"></div>
<div><button type="submit">Open</button></div>
</form></section>
<section class="panel"><h2 id="listing-title">Files</h2>
<div class="crumbs" id="crumbs"></div>
<div id="files"><p class="empty">Loading…</p></div>
<form id="upload" class="actions">
<div><label for="upload-file">Upload files to this folder</label><input id="upload-file" type="file" multiple></div>
<div style="align-self:end"><button type="submit" class="primary">Upload</button></div>
</form></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const where = document.getElementById('where');
  const files = document.getElementById('files');
  const tenant = () => where.tenant.value.trim() || 'default';
  const folder = () => where.folder.value.replace(/^\/+|\/+$/g, '');
  const storagePath = name => '/storage/' + encodeURIComponent(tenant()) + '/' +
    [folder(), name].filter(Boolean).join('/').split('/').map(encodeURIComponent).join('/');
  async function load() {
    const crumbs = document.getElementById('crumbs');
    const parts = folder() ? folder().split('/') : [];
    crumbs.innerHTML = '<button class="link" data-go="">' + esc(tenant()) + '</button>' +
      parts.map((p, i) => ' / <button class="link" data-go="' + esc(parts.slice(0, i + 1).join('/')) + '">' + esc(p) + '</button>').join('');
    try {
      const answer = await api('GET', storagePath('') + (folder() ? '/' : ''));
      const entries = (answer.entries || []).slice().sort((a, b) => (b.is_directory - a.is_directory) || a.name.localeCompare(b.name));
      files.innerHTML = table([
        {title: 'Name', html: e => e.is_directory ? '<button class="link" data-go="' + esc([folder(), e.name].filter(Boolean).join('/')) + '">' + esc(e.name) + '/</button>' : esc(e.name)},
        {title: 'Size', key: e => e.is_directory ? '' : bytes(e.size_bytes), num: true},
        {title: 'Type', key: 'content_type'}, {title: 'Modified', key: e => when(e.modified_at)},
        {title: 'Actions', html: e => '<div class="row-actions">' + (e.is_directory ? '' : '<button data-download="' + esc(e.name) + '">Download</button>') +
          '<button class="danger" data-delete="' + esc(e.name) + '">Delete</button></div>'}], entries, 'This folder is empty.');
    } catch (error) {
      if (error.status === 404 && folder()) { files.innerHTML = '<p class="empty">This folder is empty.</p>'; return; }
      showFailure(files, error);
    }
  }
  where.addEventListener('submit', event => { event.preventDefault(); load(); });
  document.addEventListener('click', async event => {
    const target = event.target;
    if (target.dataset.go !== undefined) { where.folder.value = target.dataset.go; load(); }
    if (target.dataset.download) {
      const response = await apiFetch(storagePath(target.dataset.download));
      if (!response.ok) { toast('Download failed: HTTP ' + response.status, 'error'); return; }
      const link = document.createElement('a');
      link.href = URL.createObjectURL(await response.blob());
      link.download = target.dataset.download;
      document.body.appendChild(link);
      link.click();
      setTimeout(() => { URL.revokeObjectURL(link.href); link.remove(); }, 1000);
    }
    if (target.dataset.delete && confirm('Delete ' + target.dataset.delete + '?')) {
      await guarded(() => api('DELETE', storagePath(target.dataset.delete)), 'Deleted ' + target.dataset.delete);
      load();
    }
  });
  // Every file goes as base64, so binary files arrive byte for byte.
  document.getElementById('upload').addEventListener('submit', async event => {
    event.preventDefault();
    const picked = [...document.getElementById('upload-file').files];
    if (!picked.length) { toast('Choose a file first', 'error'); return; }
    for (const file of picked) {
      const body = {encoding: 'base64', data: base64Of(await file.arrayBuffer())};
      if (file.type) body.content_type = file.type;
      await guarded(() => api('PUT', storagePath(file.name), body), 'Uploaded ' + file.name);
    }
    event.target.reset();
    load();
  });
  load();
});
</script>
)HTML";

const char* const kVectorMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>Vector Store</h1></div>
<section class="cards" id="vector-cards" aria-label="Vector store figures"></section>
<section class="panel"><h2>Namespaces</h2>
<form id="ns-form" class="grid"><div><label for="vec-tenant">Tenant</label><input id="vec-tenant" name="tenant" value="default"></div>
<div><button type="submit">Show</button></div></form>
<div id="namespaces"></div></section>
<section class="panel"><h2>Ingest text</h2>
<form id="ingest" class="grid">
<div><label for="ingest-ns">Namespace</label><input id="ingest-ns" name="namespace_id" value="default" required></div>
<div><label for="ingest-source">Source name</label><input id="ingest-source" name="source" placeholder="notes.md"></div>
<div style="grid-column:1/-1"><label for="ingest-text">Text</label><textarea id="ingest-text" name="text" required></textarea></div>
<div><button type="submit" class="primary">Ingest</button></div></form></section>
<section class="panel"><h2>Search</h2>
<form id="search" class="grid">
<div><label for="search-ns">Namespace</label><input id="search-ns" name="namespace_id" value="default" required></div>
<div><label for="search-query">Query</label><input id="search-query" name="query" required></div>
<div><label for="search-k">Results</label><input id="search-k" name="top_k" type="number" min="1" max="100" value="5"></div>
<div><button type="submit" class="primary">Search</button></div></form>
<div id="results" aria-live="polite"></div></section>
<section class="panel"><h2>Embedding providers in the cluster</h2><div id="providers"></div></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const tenant = () => document.getElementById('vec-tenant').value.trim() || 'default';
  const cards = document.getElementById('vector-cards');
  async function loadStatus() {
    try {
      const [config, health] = await Promise.all([api('GET', '/vector/config'), api('GET', '/vector/health')]);
      const c = config.config || config;
      cards.innerHTML = ['backend', 'embedding_provider', 'embedding_model', 'embedding_dimension'].filter(k => c[k] !== undefined)
        .map(k => '<div class="card"><div class="label">' + esc(k.replace(/_/g, ' ')) + '</div><div class="value" style="font-size:1.05rem">' + esc(c[k]) + '</div></div>').join('') +
        '<div class="card"><div class="label">health</div><div class="value">' + badge(health.status || (health.healthy ? 'healthy' : 'unhealthy')) + '</div></div>';
    } catch (error) { showFailure(cards, error); }
  }
  async function loadNamespaces() {
    const box = document.getElementById('namespaces');
    try {
      const answer = await api('GET', '/vector/namespaces/' + encodeURIComponent(tenant()));
      box.innerHTML = table([{title: 'Namespace', key: n => n.namespace_id || n.id || n.name}, {title: 'Name', key: 'name'},
        {title: 'Documents', key: 'document_count', num: true}, {title: 'Description', key: 'description'}], answer.namespaces || [], 'No namespaces yet.');
    } catch (error) { showFailure(box, error); }
  }
  document.getElementById('ns-form').addEventListener('submit', e => { e.preventDefault(); loadNamespaces(); });
  document.getElementById('ingest').addEventListener('submit', async event => {
    event.preventDefault();
    const body = Object.assign({tenant_id: tenant()}, formData(event.target));
    if (await guarded(() => api('POST', '/vector/ingest', body), 'Ingested') !== undefined) { event.target.text.value = ''; loadNamespaces(); }
  });
  document.getElementById('search').addEventListener('submit', async event => {
    event.preventDefault();
    const body = Object.assign({tenant_id: tenant(), include_content: true}, formData(event.target));
    body.top_k = Number(body.top_k || 5);
    const out = document.getElementById('results');
    try {
      const answer = await api('POST', '/vector/search', body);
      out.innerHTML = table([{title: 'Score', key: r => Number(r.score).toFixed(4), num: true},
        {title: 'Document', key: r => r.id || r.document_id}, {title: 'Content', key: r => r.content || (r.document || {}).content}],
        answer.results || [], 'No matches.');
    } catch (error) { showFailure(out, error); }
  });
  (async () => {
    const box = document.getElementById('providers');
    try {
      const resources = await api('GET', '/api/v1/data/cluster-resources');
      const providers = resources.embedding_providers || resources.providers || [];
      box.innerHTML = table([{title: 'Provider', key: p => p.name || p.id}, {title: 'URL', key: 'url'},
        {title: 'Models', key: p => (p.models || []).join(', ')}], providers, 'No providers announced by the cluster.');
    } catch (error) { showFailure(box, error); }
  })();
  loadStatus();
  loadNamespaces();
});
</script>
)HTML";

const char* const kNfsMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>NFS Sharing</h1>
<button id="apply" class="primary">Apply to Ganesha</button></div>
<section class="panel"><h2>Status and settings</h2><div id="nfs-status"></div>
<label for="nfs-config">Configuration (JSON)</label><textarea id="nfs-config" rows="10"></textarea>
<div class="actions"><button id="save-config">Save configuration</button></div></section>
<section class="panel"><h2>Exports</h2><div id="exports"></div>
<form id="add-export" class="grid">
<div><label for="exp-id">Export id</label><input id="exp-id" name="export_id" type="number" min="1" required></div>
<div><label for="exp-path">Path</label><input id="exp-path" name="path" required placeholder="/var/lib/vostra/storage/tenants/acme"></div>
<div><label for="exp-pseudo">Pseudo path</label><input id="exp-pseudo" name="pseudo_path" placeholder="/acme"></div>
<div><label for="exp-access">Access</label><select id="exp-access" name="access_type"><option>RW</option><option>RO</option></select></div>
<div><button type="submit">Add export</button></div></form></section>
<section class="panel"><h2>Mounts of other workers</h2><div id="mounts"></div>
<form id="add-mount" class="grid">
<div><label for="mnt-id">Id</label><input id="mnt-id" name="id" required></div>
<div><label for="mnt-host">Server</label><input id="mnt-host" name="server" required></div>
<div><label for="mnt-export">Export path</label><input id="mnt-export" name="export_path" required></div>
<div><label for="mnt-point">Mount point</label><input id="mnt-point" name="mount_point" required></div>
<div><button type="submit">Add mount</button></div></form></section>
<section class="panel"><h2>Generated ganesha.conf</h2><pre id="ganesha-conf" tabindex="0">Loading…</pre></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const status = document.getElementById('nfs-status');
  async function load() {
    try {
      const config = await api('GET', '/nfs/config');
      document.getElementById('nfs-config').value = JSON.stringify(config, null, 2);
      const running = await api('GET', '/nfs/status').catch(() => ({}));
      status.innerHTML = '<p>Enabled: ' + badge(String(running.enabled ?? config.enabled ?? '')) + ' Running: ' + badge(String(running.running ?? '')) + '</p>';
    } catch (error) { showFailure(status, error); }
    const exportsBox = document.getElementById('exports');
    try {
      const answer = await api('GET', '/nfs/exports');
      const list = Array.isArray(answer) ? answer : (answer.exports || []);
      exportsBox.innerHTML = table([{title: 'Id', key: 'export_id', num: true}, {title: 'Path', key: 'path'},
        {title: 'Pseudo', key: 'pseudo_path'}, {title: 'Access', key: 'access_type'},
        {title: '', html: e => '<button class="danger" data-export="' + esc(e.export_id) + '">Remove</button>'}], list, 'No exports.');
    } catch (error) { showFailure(exportsBox, error); }
    const mountsBox = document.getElementById('mounts');
    try {
      const answer = await api('GET', '/nfs/mounts');
      const list = Array.isArray(answer) ? answer : (answer.mounts || []);
      mountsBox.innerHTML = table([{title: 'Id', key: 'id'}, {title: 'Server', key: 'server'}, {title: 'Export', key: 'export_path'},
        {title: 'Mount point', key: 'mount_point'}, {title: '', html: m => '<button class="danger" data-mount="' + esc(m.id) + '">Remove</button>'}], list, 'No mounts.');
    } catch (error) { showFailure(mountsBox, error); }
    const conf = document.getElementById('ganesha-conf');
    try {
      const response = await apiFetch('/nfs/ganesha-conf');
      const text = await response.text();
      let shown = text;
      try { const parsed = JSON.parse(text); shown = parsed.config || parsed.content || parsed.ganesha_conf || text; } catch (e) {}
      conf.textContent = response.ok ? shown : 'Not available on this worker.';
    } catch (error) { conf.textContent = error.message; }
  }
  document.getElementById('save-config').addEventListener('click', async () => {
    let body;
    try { body = JSON.parse(document.getElementById('nfs-config').value); } catch (e) { toast('The configuration is not valid JSON', 'error'); return; }
    await guarded(() => api('PUT', '/nfs/config', body), 'Configuration saved');
    load();
  });
  document.getElementById('apply').addEventListener('click', () => guarded(() => api('POST', '/nfs/apply'), 'Applied'));
  document.getElementById('add-export').addEventListener('submit', async event => {
    event.preventDefault();
    const body = formData(event.target);
    body.export_id = Number(body.export_id);
    if (await guarded(() => api('POST', '/nfs/exports', body), 'Export added') !== undefined) { event.target.reset(); load(); }
  });
  document.getElementById('add-mount').addEventListener('submit', async event => {
    event.preventDefault();
    if (await guarded(() => api('POST', '/nfs/mounts', formData(event.target)), 'Mount added') !== undefined) { event.target.reset(); load(); }
  });
  document.addEventListener('click', async event => {
    const exportId = event.target.dataset.export, mountId = event.target.dataset.mount;
    if (exportId) { await guarded(() => api('DELETE', '/nfs/exports/' + encodeURIComponent(exportId)), 'Export removed'); load(); }
    if (mountId) { await guarded(() => api('DELETE', '/nfs/mounts/' + encodeURIComponent(mountId)), 'Mount removed'); load(); }
  });
  load();
});
</script>
)HTML";

const char* const kScienceMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>Scientific Data Providers</h1></div>
<section class="panel"><h2>Try a query</h2>
<form id="science-query" class="grid">
<div><label for="sci-provider">Provider</label><select id="sci-provider" name="provider" required></select></div>
<div><label for="sci-query">Query</label><input id="sci-query" name="query" placeholder="insulin"></div>
<div><label for="sci-endpoint">Endpoint (optional)</label><input id="sci-endpoint" name="endpoint" placeholder="search"></div>
<div><button type="submit" class="primary">Run query</button></div></form>
<pre id="science-result" tabindex="0" hidden></pre></section>
<section class="panel"><h2>Providers</h2>
<div style="max-width:320px"><label for="sci-filter">Filter</label><input id="sci-filter" type="search" placeholder="name or category"></div>
<div id="providers"><p class="empty">Loading…</p></div></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  let providers = [];
  const box = document.getElementById('providers');
  function render() {
    const filter = document.getElementById('sci-filter').value.toLowerCase();
    const shown = providers.filter(p => !filter || (p.id + ' ' + p.name + ' ' + p.category).toLowerCase().includes(filter));
    box.innerHTML = table([{title: 'Id', key: 'id'}, {title: 'Name', key: 'name'}, {title: 'Category', key: 'category'},
      {title: 'Key', key: p => p.requires_key || p.key_required ? (p.has_key || p.key_present ? 'present' : 'needed') : 'none'},
      {title: '', html: p => '<button data-test="' + esc(p.id) + '">Test</button>'}], shown, 'No provider matches.');
  }
  document.getElementById('sci-filter').addEventListener('input', render);
  box.addEventListener('click', async event => {
    const id = event.target.dataset.test;
    if (!id) return;
    event.target.disabled = true;
    const answer = await guarded(() => api('GET', '/science/providers/' + encodeURIComponent(id) + '/test'));
    event.target.disabled = false;
    if (answer) toast(id + ': ' + (answer.success === false || answer.reachable === false ? 'not reachable' : 'reachable'), answer.success === false || answer.reachable === false ? 'error' : 'ok');
  });
  document.getElementById('science-query').addEventListener('submit', async event => {
    event.preventDefault();
    const out = document.getElementById('science-result');
    out.hidden = false;
    out.textContent = 'Asking…';
    try { out.textContent = JSON.stringify(await api('POST', '/science/query', formData(event.target)), null, 2); }
    catch (error) { out.textContent = error.message; toast(error.message, 'error'); }
  });
  (async () => {
    try {
      providers = (await api('GET', '/science/providers')).providers || [];
      document.getElementById('sci-provider').innerHTML = providers.map(p => '<option value="' + esc(p.id) + '">' + esc(p.name || p.id) + '</option>').join('');
      render();
    } catch (error) { showFailure(box, error); }
  })();
});
</script>
)HTML";

const char* const kAgentsMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>Agent Storage</h1><button id="seed">Add the example agents</button></div>
<section class="panel"><h2>Agent definitions</h2><div id="agents"><p class="empty">Loading…</p></div></section>
<section class="panel"><h2>Add an agent</h2>
<form id="add-agent"><label for="agent-json">Definition (JSON)</label>
<textarea id="agent-json" required>{"name": "writer", "system_prompt": "Write clearly.", "allowed_tools": ["storage.read"]}</textarea>
<div class="actions"><button type="submit" class="primary">Add agent</button></div></form></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const box = document.getElementById('agents');
  async function load() {
    try {
      const answer = await api('GET', '/api/v1/data/agents');
      const list = Array.isArray(answer) ? answer : (answer.agents || []);
      box.innerHTML = table([{title: 'Id', key: 'id'}, {title: 'Name', key: 'name'},
        {title: 'Tools', key: a => (a.allowed_tools || []).join(', ')},
        {title: '', html: a => '<button class="danger" data-remove="' + esc(a.id) + '">Remove</button>'}], list, 'No agents defined.');
    } catch (error) { showFailure(box, error); }
  }
  box.addEventListener('click', async event => {
    const id = event.target.dataset.remove;
    if (id && confirm('Remove agent ' + id + '?')) { await guarded(() => api('DELETE', '/api/v1/data/agents/' + encodeURIComponent(id)), 'Removed'); load(); }
  });
  document.getElementById('seed').addEventListener('click', async () => { await guarded(() => api('POST', '/api/v1/data/agents/seed'), 'Examples added'); load(); });
  document.getElementById('add-agent').addEventListener('submit', async event => {
    event.preventDefault();
    let body;
    try { body = JSON.parse(document.getElementById('agent-json').value); } catch (e) { toast('The definition is not valid JSON', 'error'); return; }
    await guarded(() => api('POST', '/api/v1/data/agents', body), 'Agent added');
    load();
  });
  load();
});
</script>
)HTML";

const char* const kDevToolBoxMain = R"HTML(
<main id="main" class="main-content">
<div class="page-header"><h1>DevToolBox</h1></div>
<div role="tablist" aria-label="Tools">
<button role="tab" id="tab-sandboxes" aria-controls="panel-sandboxes">Sandboxes</button>
<button role="tab" id="tab-triage" aria-controls="panel-triage">Triage</button>
<button role="tab" id="tab-pipelines" aria-controls="panel-pipelines">Pipelines</button>
<button role="tab" id="tab-forges" aria-controls="panel-forges">Forges</button>
<button role="tab" id="tab-skills" aria-controls="panel-skills">Skills</button>
<button role="tab" id="tab-automations" aria-controls="panel-automations">Automations</button>
</div>
<section class="panel" role="tabpanel" id="panel-sandboxes" aria-labelledby="tab-sandboxes">
<form id="sandbox-run" class="grid">
<div><label for="sbx-workspace">Workspace</label><input id="sbx-workspace" name="workspace" list="workspace-names" required>
<datalist id="workspace-names"></datalist></div>
<div style="grid-column:span 2"><label for="sbx-command">Command (JSON list, or words)</label><input id="sbx-command" name="command" required value='["sh","-c","ls -la"]'></div>
<div><button type="submit" class="primary">Run</button></div></form>
<pre id="sandbox-output" tabindex="0" hidden></pre><h2 class="spaced">Recent runs</h2><div id="sandbox-runs"></div></section>
<section class="panel" role="tabpanel" id="panel-triage" aria-labelledby="tab-triage" hidden>
<form id="triage"><label for="triage-text">Log</label><textarea id="triage-text" rows="10" required placeholder="Paste a build or test log"></textarea>
<div class="actions"><button type="submit" class="primary">Analyze</button></div></form><div id="triage-result"></div></section>
<section class="panel" role="tabpanel" id="panel-pipelines" aria-labelledby="tab-pipelines" hidden><div id="pipelines"></div></section>
<section class="panel" role="tabpanel" id="panel-forges" aria-labelledby="tab-forges" hidden><div id="forges"></div></section>
<section class="panel" role="tabpanel" id="panel-skills" aria-labelledby="tab-skills" hidden><div id="skills"></div></section>
<section class="panel" role="tabpanel" id="panel-automations" aria-labelledby="tab-automations" hidden><div id="automations"></div></section>
</main>
<script>
document.addEventListener('DOMContentLoaded', () => {
  const loaders = {
    'tab-sandboxes': async () => {
      const box = document.getElementById('sandbox-runs');
      api('GET', '/api/v1/workspaces').then(answer => {
        document.getElementById('workspace-names').innerHTML =
          (answer.workspaces || []).map(w => '<option value="' + esc(w.name) + '">').join('');
      }).catch(() => {});
      try {
        box.innerHTML = table([{title: 'Run', key: 'id'}, {title: 'Workspace', key: 'workspace'}, {title: 'Command', key: r => (r.command || []).join(' ')},
          {title: 'Status', html: r => badge(r.status)}, {title: 'Exit', key: 'exit_code', num: true}, {title: 'Started', key: 'started_at'}],
          (await api('GET', '/api/v1/sandboxes')).runs || [], 'No runs yet.');
      } catch (error) { showFailure(box, error); }
    },
    'tab-pipelines': async () => {
      const box = document.getElementById('pipelines');
      try {
        box.innerHTML = table([{title: 'Run', key: 'id'}, {title: 'Repository', key: 'repository'}, {title: 'Ref', key: 'ref'},
          {title: 'Status', html: r => badge(r.status)}, {title: 'Steps', key: r => (r.steps || []).map(s => s.name + ': ' + s.status).join(', ')},
          {title: 'Started', key: 'started_at'}], (await api('GET', '/api/v1/cicd/runs')).runs || [], 'No pipeline runs yet.');
      } catch (error) { showFailure(box, error); }
    },
    'tab-forges': async () => {
      const box = document.getElementById('forges');
      try {
        const answer = await api('GET', '/api/v1/git/forges');
        box.innerHTML = table([{title: 'Alias', key: f => f.alias || f.id}, {title: 'Type', key: 'type'}, {title: 'URL', key: f => f.base_url || f.url}],
          Array.isArray(answer) ? answer : (answer.forges || []), 'No forge accounts.');
      } catch (error) { showFailure(box, error); }
    },
    'tab-skills': async () => {
      const box = document.getElementById('skills');
      try {
        const answer = await api('GET', '/api/v1/skills');
        box.innerHTML = table([{title: 'Id', key: 'id'}, {title: 'Name', key: 'name'}, {title: 'Description', key: 'description'}],
          Array.isArray(answer) ? answer : (answer.skills || []), 'No skills.');
      } catch (error) { showFailure(box, error); }
    },
    'tab-automations': async () => {
      const box = document.getElementById('automations');
      try {
        const answer = await api('GET', '/api/v1/automations');
        box.innerHTML = table([{title: 'Id', key: 'id'}, {title: 'Name', key: 'name'}, {title: 'Schedule', key: 'schedule'}, {title: 'Next run', key: 'next_run'}],
          Array.isArray(answer) ? answer : (answer.automations || []), 'No automations.');
      } catch (error) { showFailure(box, error); }
    },
  };
  document.addEventListener('tab-selected', event => { const load = loaders[event.target.id]; if (load) load(); });
  setupTabs();
  document.getElementById('sandbox-run').addEventListener('submit', async event => {
    event.preventDefault();
    const text = event.target.command.value.trim();
    let command;
    try { command = text.startsWith('[') ? JSON.parse(text) : text.split(/\s+/); } catch (e) { toast('The command is not a valid JSON list', 'error'); return; }
    const out = document.getElementById('sandbox-output');
    out.hidden = false;
    out.textContent = 'Running…';
    try {
      const run = await api('POST', '/api/v1/sandboxes', {workspace: event.target.workspace.value, command, wait: true});
      out.textContent = '[' + run.status + ', exit ' + run.exit_code + ']\n' + (run.stdout || '') + (run.stderr ? '\n--- stderr ---\n' + run.stderr : '');
    } catch (error) { out.textContent = error.message; toast(error.message, 'error'); }
    loaders['tab-sandboxes']();
  });
  document.getElementById('triage').addEventListener('submit', async event => {
    event.preventDefault();
    const box = document.getElementById('triage-result');
    try {
      const answer = await api('POST', '/api/v1/triage/analyze', {text: document.getElementById('triage-text').value});
      box.innerHTML = '<p class="muted">' + esc(answer.lines + ' lines, ' + answer.errors + ' errors, ' + answer.warnings + ' warnings') + '</p>' +
        table([{title: '#', key: 'rank', num: true}, {title: 'Severity', html: g => badge(g.severity)}, {title: 'Count', key: 'count', num: true},
          {title: 'First line', key: 'first_line', num: true}, {title: 'Example', key: 'example'}], answer.groups || [], 'No errors or warnings found.');
    } catch (error) { showFailure(box, error); }
  });
});
</script>
)HTML";

// Shown through the controller, the pages live under its prefix: links
// to other pages must go there too.
const char* const kFooterScript = R"JS(
(function rewriteLinks() {
  const base = window.COMPONENT_API_BASE;
  if (!base) return;
  for (const link of document.querySelectorAll('a[href^="/dashboard/"]')) link.setAttribute('href', base + link.getAttribute('href'));
})();
)JS";

}  // namespace vostra::data

// The style and the script of the server's pages, served from memory as
// /static/app.css and /static/app.js: nothing from elsewhere, and no
// inline script, so that the pages' policy can forbid it.
#include "serve/pages.h"

namespace tsecheck::serve {

// The colours and verdict boxes of the --html report; made for a phone
// first: nothing wider than the screen, targets large enough to tap.
const std::string_view APP_CSS = R"(
:root{--ok:#1a7f37;--warn:#8a5a00;--bad:#c1121f;--line:#c9d1d9;--accent:#0b5cad}
*{box-sizing:border-box}
body{font:16px/1.5 system-ui,-apple-system,"Segoe UI",sans-serif;color:#1f2328;max-width:48rem;margin:0 auto;padding:0 1rem 2rem;overflow-wrap:anywhere}
header.top{padding:.6rem 0;border-bottom:1px solid var(--line);margin-bottom:1rem}
header.top a{font-weight:700;color:#1f2328;text-decoration:none}
h1{font-size:1.5rem;margin:.4rem 0 .6rem}h2{font-size:1.2rem;border-bottom:1px solid var(--line);padding-bottom:.2rem;margin-top:1.6rem}
.lead{color:#444}
form{display:flex;flex-direction:column;gap:.7rem;margin:.6rem 0 1rem}
.drop{display:flex;flex-direction:column;gap:.2rem;border:2px dashed var(--line);border-radius:8px;padding:.8rem}
.drop.over{border-color:var(--accent);background:#eef5fc}
.label{font-weight:600}.hint{font-size:.9rem;color:#555}
input[type=file]{width:100%;min-height:44px;font-size:1rem}
input#scan,textarea{width:100%;font:1rem ui-monospace,monospace;padding:.6rem;border:1px solid #8c959f;border-radius:6px}
input#scan{min-height:48px}
.check{display:flex;align-items:center;gap:.5rem;min-height:44px}.check input{width:1.3rem;height:1.3rem}
button,a.button{display:inline-block;min-height:48px;padding:.7rem 1.2rem;font-size:1rem;font-weight:600;border:0;border-radius:8px;
background:var(--accent);color:#fff;text-decoration:none;cursor:pointer;text-align:center}
button.secondary{background:#57606a}
.actions{display:flex;flex-wrap:wrap;gap:.6rem 1rem;align-items:center}.actions a:not(.button){padding:.7rem .2rem}
.verdict{display:block;padding:.7rem 1rem;border:3px solid;border-radius:6px;font-size:1.6rem;font-weight:700;margin:.5rem 0 1rem}
.verdict small{display:block;font-size:1rem;font-weight:400;color:#1f2328}
.passed,.valid{color:var(--ok);border-color:var(--ok);background:#e6f6ea}
.passed-with-warnings{color:var(--warn);border-color:var(--warn);background:#fff5d6}
.failed,.invalid,.malformed{color:var(--bad);border-color:var(--bad);background:#fde8ea}
.cancelled{color:#57606a;border-color:#57606a;background:#f3f5f7}
progress{width:100%;height:1.6rem}
pre{overflow-x:auto;background:#f6f8fa;padding:.6rem;border-radius:6px;font-size:.85rem;white-space:pre}
ul.files{padding-left:1.2rem}ul.files .name{font-family:ui-monospace,monospace}
ol.cards{list-style:none;padding:0;margin:.6rem 0;display:flex;flex-direction:column;gap:.8rem}
.card{border:3px solid;border-radius:8px;padding:.6rem .9rem}
.card .big{font-size:2.2rem;font-weight:800;margin:0;letter-spacing:.03em}
.card .source{margin:0 0 .4rem;color:#444;font-size:.9rem}
.card dl{display:grid;grid-template-columns:max-content 1fr;gap:.1rem .8rem;margin:.3rem 0;color:#1f2328}
.card dt{font-weight:600}.card dd{margin:0}
.card .reason,.card .explanation{color:#1f2328;margin:.3rem 0}
dl dt{font-weight:700;margin-top:.5rem}dl dd{margin-left:0}
footer{margin-top:2.5rem;font-size:.8rem;color:#555}
)";

// Drag and drop onto a file field, live progress on a job's page, and the
// scanner field: each code is sent once the typing pauses, its verdict
// card is put on top of the list, and the field is cleared for the next.
const std::string_view APP_JS = R"JS('use strict';
(function () {
  var token = document.body.getAttribute('data-form-token') || '';

  document.querySelectorAll('.drop').forEach(function (zone) {
    var input = zone.querySelector('input[type=file]');
    ['dragenter', 'dragover'].forEach(function (name) {
      zone.addEventListener(name, function (e) { e.preventDefault(); zone.classList.add('over'); });
    });
    ['dragleave', 'drop'].forEach(function (name) {
      zone.addEventListener(name, function () { zone.classList.remove('over'); });
    });
    zone.addEventListener('drop', function (e) {
      e.preventDefault();
      if (e.dataTransfer && e.dataTransfer.files.length) input.files = e.dataTransfer.files;
    });
  });

  function thousands(n) { return String(n).replace(/\B(?=(\d{3})+(?!\d))/g, ','); }
  function megabytes(n) { return (n / 1048576).toFixed(1) + ' MB'; }
  function progressLine(s) {
    var p = s.progress;
    if (s.state === 'queued') return 'Waiting for a free place: other jobs run first.';
    if (p.unit === 'pictures') return thousands(p.done) + ' of ' + thousands(p.total) + ' pictures read';
    if (p.unit === 'rows') return 'Bookkeeping: ' + thousands(p.done) + ' of ' + thousands(p.total) + ' rows verified';
    var read = megabytes(p.done) + ' of ' + megabytes(p.total) + ' read';
    if (p.check === 'dsfinvk') return 'Bookkeeping against the TSE export: ' + read;
    return thousands(p.logs) + ' logs checked, ' + read;
  }
  function over(s) { return s.state !== 'queued' && s.state !== 'running'; }

  var job = document.getElementById('job');
  if (job && job.getAttribute('data-state') && !over({state: job.getAttribute('data-state')})) {
    var id = job.getAttribute('data-job');
    var poll = function () {
      fetch('/api/jobs/' + id + '?result=none', {credentials: 'same-origin'}).then(function (r) { return r.json(); })
        .then(function (s) {
          if (over(s)) { location.reload(); return; }
          var bar = document.getElementById('bar');
          if (bar && s.progress.total > 0) { bar.max = s.progress.total; bar.value = Math.min(s.progress.done, s.progress.total); }
          var line = document.getElementById('progress-line');
          if (line) line.textContent = progressLine(s);
          setTimeout(poll, 700);
        }).catch(function () { setTimeout(poll, 2000); });
    };
    setTimeout(poll, 300);
  }

  var scan = document.getElementById('scan');
  var list = document.getElementById('scan-list');
  if (!scan || !list) return;
  var timer = null;
  function waitFor(id) {
    return fetch('/api/jobs/' + id + '?result=none', {credentials: 'same-origin'}).then(function (r) { return r.json(); })
      .then(function (s) {
        if (!over(s)) return new Promise(function (done) { setTimeout(done, 250); }).then(function () { return waitFor(id); });
        if (s.state !== 'done') throw new Error(s.error || s.state);
        return fetch('/jobs/' + id + '?part=cards', {credentials: 'same-origin'}).then(function (r) { return r.text(); });
      });
  }
  function check() {
    clearTimeout(timer);
    var text = scan.value.trim();
    scan.value = '';
    scan.focus();
    if (!text) return;
    var form = new FormData();
    form.append('explain', '1');
    form.append('text', text);
    fetch('/api/receipt', {method: 'POST', body: form, headers: {'X-Form-Token': token}, credentials: 'same-origin'})
      .then(function (r) { return r.json(); })
      .then(function (s) { if (!s.id) throw new Error(s.error || 'refused'); return waitFor(s.id); })
      .then(function (cards) { list.insertAdjacentHTML('afterbegin', cards); })
      .catch(function (e) {
        var item = document.createElement('li');
        item.className = 'card malformed';
        item.textContent = 'Not checked: ' + e.message;
        list.insertBefore(item, list.firstChild);
      });
  }
  scan.addEventListener('input', function () { clearTimeout(timer); timer = setTimeout(check, 400); });
  scan.form.addEventListener('submit', function (e) { e.preventDefault(); check(); });
})();
)JS";

}  // namespace tsecheck::serve

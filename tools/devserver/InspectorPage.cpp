#include "InspectorPage.h"

namespace quorvel::devserver {

// One page, no build step and nothing fetched from elsewhere: it polls the admin port's
// JSON and posts to its fault switches.
std::string inspectorPage(const std::string& token) {
  // The token is hex: nothing in it needs escaping in an attribute.
  return R"HTML(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="admin-token" content=")HTML" +
         token + R"HTML(">
<title>quorvel-devserver inspector</title>
<style>
  body { font: 14px system-ui, sans-serif; margin: 0; color: #1d2330; background: #f5f6f8; }
  header { background: #1d2330; color: #fff; padding: 10px 16px; display: flex; gap: 16px;
           align-items: center; flex-wrap: wrap; }
  header h1 { font-size: 16px; margin: 0 12px 0 0; }
  header button, header select, header input { font: inherit; }
  #state { padding: 2px 8px; border-radius: 4px; background: #2e7d32; }
  #state.offline { background: #c62828; }
  main { display: grid; grid-template-columns: 1fr 1fr; gap: 12px; padding: 12px 16px; }
  section { background: #fff; border-radius: 6px; padding: 8px; overflow: auto;
            max-height: calc(100vh - 120px); }
  table { border-collapse: collapse; width: 100%; }
  th, td { text-align: left; padding: 4px 6px; border-bottom: 1px solid #e3e5ea;
           white-space: nowrap; }
  tbody tr { cursor: pointer; }
  tbody tr:hover, tbody tr.selected { background: #e8f0fe; }
  td.failed { color: #c62828; font-weight: 600; }
  pre { margin: 0; font-size: 12px; white-space: pre-wrap; word-break: break-all; }
  .filters { display: flex; gap: 8px; margin-bottom: 8px; }
</style>
</head>
<body>
<header>
  <h1>quorvel-devserver</h1>
  <span id="state">online</span>
  <button id="offline">Go offline</button>
  <button id="online">Go online</button>
  <span>service
    <select id="fault-service"></select>
    status <input id="fault-code" size="4" value="503">
    <button id="set-status">Answer with status</button>
    delay <input id="fault-delay" size="6" value="2000"> ms
    <button id="set-delay">Delay</button>
    <button id="clear">Clear faults</button>
  </span>
</header>
<main>
  <section>
    <div class="filters">
      <select id="filter-service"><option value="">every service</option></select>
      <input id="filter-event" placeholder="event name contains">
      <span id="count"></span>
    </div>
    <table id="requests">
      <thead><tr><th>time</th><th>service</th><th>event</th><th>status</th><th>path</th></tr></thead>
      <tbody></tbody>
    </table>
  </section>
  <section id="details"><pre>Click a request to see its headers and decrypted payload.</pre></section>
</main>
<script>
"use strict";
const rows = [];
let lastId = 0;

// Every call but the page itself carries the run's token, which only this page was given.
const token = document.querySelector('meta[name="admin-token"]').content;
const tokenHeaders = { "X-Quorvel-Admin-Token": token };
function get(path) { return fetch(path, { headers: tokenHeaders }); }

function text(value) { return value === undefined || value === null ? "" : String(value); }

async function fillServices() {
  const services = await (await get("/services")).json();
  for (const id of ["fault-service", "filter-service"]) {
    const select = document.getElementById(id);
    for (const s of (id === "fault-service" ? ["*"] : []).concat(services)) {
      const option = document.createElement("option");
      option.value = s;
      option.textContent = s;
      select.appendChild(option);
    }
  }
}

function visible(r) {
  const service = document.getElementById("filter-service").value;
  const event = document.getElementById("filter-event").value;
  return (!service || r.service === service) && (!event || text(r.event).includes(event));
}

function render() {
  const body = document.querySelector("#requests tbody");
  body.replaceChildren();
  let shown = 0;
  for (const r of rows) {
    if (!visible(r)) continue;
    shown++;
    const tr = document.createElement("tr");
    tr.dataset.id = r.id;
    const cells = [new Date(r.time * 1000).toLocaleTimeString(), r.service, text(r.event),
                   r.status, r.path];
    cells.forEach((value, i) => {
      const td = document.createElement("td");
      td.textContent = value;
      if (i === 3 && (r.status === 0 || r.status >= 400)) td.className = "failed";
      tr.appendChild(td);
    });
    tr.addEventListener("click", () => show(r, tr));
    body.appendChild(tr);
  }
  document.getElementById("count").textContent = shown + " of " + rows.length;
}

function show(r, tr) {
  document.querySelectorAll("#requests tr.selected").forEach(e => e.classList.remove("selected"));
  tr.classList.add("selected");
  const pre = document.createElement("pre");
  pre.textContent = r.method + " " + r.host + r.path + (r.query ? "?" + r.query : "") +
      "\n\nstatus " + r.status + (r.note ? " (" + r.note + ")" : "") +
      "\n\nheaders\n" + JSON.stringify(r.headers, null, 2) +
      "\n\npayload\n" + (r.decrypted ? JSON.stringify(r.decrypted, null, 2) :
                         "(nothing decrypted; body of " + r.body_size + " bytes)");
  document.getElementById("details").replaceChildren(pre);
}

async function poll() {
  try {
    const answer = await get("/requests?after=" + lastId);
    const fresh = await answer.json();
    for (const r of fresh) {  // newest first
      lastId = Math.max(lastId, r.id);
    }
    if (fresh.length) {
      rows.unshift(...fresh);
      render();
    }
    showState(await (await get("/faults")).json());
  } catch (e) {
    document.getElementById("state").textContent = "emulator not reachable";
  }
}

function showState(state) {
  const badge = document.getElementById("state");
  const faults = Object.entries(state.statuses || {}).map(([s, c]) => s + "→" + c)
      .concat(Object.entries(state.delays_ms || {}).map(([s, d]) => s + " +" + d + "ms"));
  badge.textContent = (state.online ? "online" : "offline") +
      (faults.length ? " · " + faults.join(", ") : "");
  badge.className = state.online ? "" : "offline";
}

async function post(path) {
  const answer = await fetch(path, { method: "POST", headers: tokenHeaders });
  showState(await answer.json());
}

function service() { return encodeURIComponent(document.getElementById("fault-service").value); }

fillServices();
document.getElementById("offline").onclick = () => post("/faults/offline");
document.getElementById("online").onclick = () => post("/faults/online");
document.getElementById("clear").onclick = () => post("/faults/clear");
document.getElementById("set-status").onclick = () => post("/faults/status?service=" + service() +
    "&code=" + encodeURIComponent(document.getElementById("fault-code").value));
document.getElementById("set-delay").onclick = () => post("/faults/delay?service=" + service() +
    "&ms=" + encodeURIComponent(document.getElementById("fault-delay").value));
document.getElementById("filter-service").onchange = render;
document.getElementById("filter-event").oninput = render;
poll();
setInterval(poll, 1000);
</script>
</body>
</html>
)HTML";
}

}  // namespace quorvel::devserver

// The administration page: reads the server through /api and posts the administrator's changes
// with the session's token. Everything from the server is shown as text, never as markup.
"use strict";

const ROW = { id: 0, title: 1, version: 2, mirror: 3, catalog: 4, enabled: 5, size: 6, posted: 7 };
const SHOWN_ROWS = 500;
const SVG = "http://www.w3.org/2000/svg";
const COLORS = ["#2f6fd6", "#2aa876", "#e0a526", "#d8553b", "#8a63c9", "#5b6b7f", "#1aa3b8"];

const page = {
  token: "", rows: [], sortColumn: ROW.id, sortUp: true, selected: new Set(), daemonRunning: false,
  detailId: "", statusTimer: 0,
};
// Text compares as a person reads it: 10.4.10 after 10.4.2.
const COLLATOR = new Intl.Collator(undefined, { numeric: true, sensitivity: "base" });

function $(id) { return document.getElementById(id); }

function element(name, text, className) {
  const node = document.createElement(name);
  if (text !== undefined) node.textContent = String(text);
  if (className) node.className = className;
  return node;
}

// Replaces the body of the table with one row per item, its cells made by cellsOf.
function fillTable(id, items, cellsOf) {
  const body = document.createElement("tbody");
  for (const item of items) {
    const line = element("tr");
    line.append(...cellsOf(item));
    body.append(line);
  }
  $(id).replaceChild(body, $(id).tBodies[0]);
}

// A size the server does not know (none recorded) is "unknown", never "0 B".
function bytes(count) {
  if (count === null || count === undefined || count === "" || !Number.isFinite(Number(count))) {
    return "unknown";
  }
  const units = ["B", "KB", "MB", "GB", "TB"];
  let value = Number(count);
  let unit = 0;
  while (value >= 1000 && unit < units.length - 1) { value /= 1000; unit++; }
  return unit === 0 ? `${value} B` : `${value.toFixed(1)} ${units[unit]}`;
}

function age(fromIso, nowIso) {
  const seconds = Math.max(0, Math.round((Date.parse(nowIso) - Date.parse(fromIso)) / 1000));
  if (seconds < 120) return `${seconds} s ago`;
  if (seconds < 7200) return `${Math.round(seconds / 60)} min ago`;
  if (seconds < 172800) return `${Math.round(seconds / 3600)} h ago`;
  return `${Math.round(seconds / 86400)} days ago`;
}

function say(text, isError) {
  $("message").textContent = text;
  $("message").className = isError ? "error" : "";
}

async function api(path, options) {
  const response = await fetch(`/api${path}`, options);
  const body = await response.json().catch(() => ({ error: `HTTP ${response.status}` }));
  if (!response.ok) throw new Error(body.error || `HTTP ${response.status}`);
  return body;
}

async function post(path, fields) {
  return api(path, {
    method: "POST",
    headers: { "X-Ondrel-Token": page.token, "Content-Type": "application/x-www-form-urlencoded" },
    body: new URLSearchParams(fields),
  });
}

// Horizontal bars, one per name, as SVG drawn from the DOM (no framework, no inline style).
function drawBars(svg, counts) {
  while (svg.firstChild) svg.removeChild(svg.firstChild);
  const names = Object.keys(counts);
  const most = Math.max(1, ...names.map((name) => counts[name]));
  const width = 320;
  svg.setAttribute("width", width);
  svg.setAttribute("height", Math.max(1, names.length) * 22);
  names.forEach((name, index) => {
    const bar = document.createElementNS(SVG, "rect");
    bar.setAttribute("x", 110);
    bar.setAttribute("y", index * 22 + 3);
    bar.setAttribute("height", 16);
    bar.setAttribute("width", Math.max(2, ((width - 160) * counts[name]) / most));
    bar.setAttribute("fill", COLORS[index % COLORS.length]);
    const label = document.createElementNS(SVG, "text");
    label.setAttribute("x", 0);
    label.setAttribute("y", index * 22 + 15);
    label.textContent = name;
    const value = document.createElementNS(SVG, "text");
    value.setAttribute("x", 114 + Math.max(2, ((width - 160) * counts[name]) / most));
    value.setAttribute("y", index * 22 + 15);
    value.textContent = String(counts[name]);
    svg.append(bar, label, value);
  });
}

// While a pass runs its progress is shown, and the status read again every two seconds.
// Vertical bars, one per pass, oldest first; a pass that did not succeed is red and marked, and
// each bar says what it is when pointed at.
function drawHistory(svg, passes, valueOf) {
  while (svg.firstChild) svg.removeChild(svg.firstChild);
  const height = 80;
  const most = Math.max(1e-9, ...passes.map(valueOf));
  svg.setAttribute("width", Math.max(1, passes.length) * 8 + 8);
  svg.setAttribute("height", height + 14);
  passes.forEach((pass, index) => {
    const value = valueOf(pass);
    const barHeight = Math.max(2, (height * value) / most);
    const bar = document.createElementNS(SVG, "rect");
    bar.setAttribute("x", index * 8 + 4);
    bar.setAttribute("y", height - barHeight);
    bar.setAttribute("width", 6);
    bar.setAttribute("height", barHeight);
    bar.setAttribute("fill", COLORS[0]);
    const failed = pass.outcome !== "succeeded";
    if (failed) bar.setAttribute("class", "failed");
    const title = document.createElementNS(SVG, "title");
    title.textContent = `${new Date(pass.started).toLocaleString()}: ${pass.outcome} (${pass.kind}), ` +
      `${Math.round(pass.seconds)} s, ${bytes(pass.bytesFetched)}${pass.note ? `: ${pass.note}` : ""}`;
    bar.append(title);
    svg.append(bar);
    if (failed) {
      const mark = document.createElementNS(SVG, "text");
      mark.setAttribute("x", index * 8 + 3);
      mark.setAttribute("y", height + 12);
      mark.textContent = "\u2715";
      svg.append(mark);
    }
  });
}

// A banner when the server is not healthy: the last pass failed, none has succeeded yet, the
// next pass is overdue, a kept file was found damaged and no pass has fetched it again yet, or
// the free space is close to the reserve.
function healthProblems(status) {
  const problems = [];
  const pass = status.lastPass || {};
  if (pass.outcome === "failed") problems.push("the last pass failed");
  if (!status.lastGoodPass) problems.push("no pass has succeeded yet");
  if (status.overdue) problems.push("the next pass is more than an hour overdue");
  const damaged = (status.scrub || {}).damaged || [];
  if (damaged.length) {
    problems.push(`${damaged.length} kept files were found damaged and are not back yet ` +
                  `(${damaged.slice(0, 3).map((item) => `${item.productId}: ${item.finding}`).join(", ")})`);
  }
  const margin = status.volumeBytes * 0.05;
  if (status.volumeFreeBytes < status.reserveBytes + margin) {
    problems.push("the free space is close to the reserve");
  }
  return problems;
}

function showStatus(status) {
  const pass = status.lastPass || {};
  const problems = healthProblems(status);
  $("health-banner").hidden = problems.length === 0;
  $("health-banner").textContent = problems.length ? `Needs attention: ${problems.join("; ")}.` : "";
  const recent = status.recentPasses || [];
  drawHistory($("chart-history-seconds"), recent, (item) => item.seconds);
  drawHistory($("chart-history-bytes"), recent, (item) => item.bytesFetched / 1e6);
  page.daemonRunning = status.daemonRunning;
  $("sync-state").textContent = status.syncState;
  $("daemon").textContent = status.daemonRunning ? "running" : "not running";
  $("waiting").textContent =
    `${status.pendingRequests} requests, ${status.pendingTickets} changes`;
  const progress = $("pass-progress");
  progress.hidden = !status.progress;
  progress.textContent = status.progress ? `Pass under way: ${status.progress.summary}` : "";
  clearTimeout(page.statusTimer);
  if (status.syncState === "syncing" || status.progress) {
    page.statusTimer = setTimeout(() => api("/status").then(showStatus).catch(() => {}), 2000);
  }
  $("last-pass").textContent = pass.outcome
    ? `${pass.outcome} (${pass.kind}), ${age(pass.started, status.now)} (${Math.round(pass.seconds)} s)`
    : "none yet";
  $("next-pass").textContent = pass.nextPassDue
    ? new Date(pass.nextPassDue).toLocaleString()
    : "not scheduled";
  $("scrub").textContent = scrubSummary(status.scrub || {}, status.now);
  $("product-count").textContent = `${status.products} (${status.enabled} enabled)`;
  $("bytes-mirrored").textContent = bytes(status.bytesMirrored);
  $("bytes-to-mirror").textContent = bytes(status.bytesToMirror);
  const onDemand = status.onDemand || {};
  $("on-demand").textContent = onDemand.products
    ? `${onDemand.products} products, ${bytes(onDemand.bytesHere)} of ${bytes(onDemand.bytes)} here; ` +
      `${onDemand.fetchedFiles} files (${bytes(onDemand.fetchedBytes)}) fetched on demand; ` +
      `served to ${onDemand.servedClients} clients (${onDemand.servedFiles} times, a file counted once a client)`
    : "none";
  const reserve = status.reserveBytes;
  $("free-space").textContent = `${bytes(status.volumeFreeBytes)} (reserve ${bytes(reserve)})`;
  const failure = $("last-failure");
  failure.hidden = !status.updateError;
  failure.textContent = status.updateError
    ? `Failure: ${status.errorNote || ""} (until a full pass succeeds)`
    : "";
  drawBars($("chart-mirror"), status.productsByMirrorState);
  drawBars($("chart-catalog"), status.productsByCompositeState);
  drawBars($("chart-space"), {
    "used (MB)": Math.round((status.volumeBytes - status.volumeFreeBytes) / 1e6),
    "free (MB)": Math.round(status.volumeFreeBytes / 1e6),
    "reserve (MB)": Math.round(reserve / 1e6),
  });
  const states = new Set([...Object.keys(status.productsByMirrorState),
                          ...Object.keys(status.productsByCompositeState)]);
  const select = $("filter-state");
  const chosen = select.value;
  while (select.options.length > 1) select.remove(1);
  for (const state of states) select.add(new Option(state, state));
  select.value = states.has(chosen) ? chosen : "";
}

// How far the background check of the kept files has come, and when it last read one.
function scrubSummary(scrub, now) {
  if (!scrub.cycleStarted) return "not yet";
  const cycle = scrub.cycleEnded
    ? `whole cycle done ${age(scrub.cycleEnded, now)}`
    : `${scrub.cycleFiles} of ${scrub.cycleTotalFiles} files this cycle`;
  const last = scrub.lastCheck ? `, last read ${age(scrub.lastCheck, now)}` : "";
  return `${cycle}${last}; ${scrub.damagedFound} found damaged in all`;
}

function showPlan(plan) {
  $("plan-summary").textContent =
    `${plan.products.length} products, ${plan.files} files, ${bytes(plan.bytes)}; ` +
    `${bytes(plan.freeBytes)} free, ${bytes(plan.reserveBytes)} kept in reserve: ` +
    (plan.fits ? "fits" : "DOES NOT FIT");
}

function matchingRows() {
  const text = $("filter-text").value.trim().toLowerCase();
  const state = $("filter-state").value;
  const rows = page.rows.filter((row) =>
    (!state || row[ROW.mirror] === state || row[ROW.catalog] === state) &&
    (!text || `${row[ROW.id]} ${row[ROW.title]} ${row[ROW.version]}`.toLowerCase().includes(text)));
  const column = page.sortColumn;
  const direction = page.sortUp ? 1 : -1;
  const numeric = column === ROW.size;
  rows.sort((a, b) => direction * (numeric
    ? (Number(a[column]) || 0) - (Number(b[column]) || 0)
    : COLLATOR.compare(String(a[column] ?? ""), String(b[column] ?? ""))));
  return rows;
}

function showProducts() {
  const rows = matchingRows();
  const body = document.createElement("tbody");
  for (const row of rows.slice(0, SHOWN_ROWS)) {
    const line = document.createElement("tr");
    line.dataset.id = row[ROW.id];
    const pick = element("input");
    pick.type = "checkbox";
    pick.setAttribute("aria-label", `Select ${row[ROW.id]}`);
    pick.checked = page.selected.has(row[ROW.id]);
    pick.addEventListener("change", () => {
      if (pick.checked) page.selected.add(row[ROW.id]); else page.selected.delete(row[ROW.id]);
    });
    const choose = element("td");
    choose.append(pick);
    const id = element("td", "", "id");
    const link = element("a", row[ROW.id]);
    link.href = `#product-${encodeURIComponent(row[ROW.id])}`;
    link.addEventListener("click", (event) => {
      event.preventDefault();
      showDetail(row[ROW.id]);
    });
    id.append(link);
    line.append(choose, id, element("td", row[ROW.title]), element("td", row[ROW.version]),
                element("td", row[ROW.mirror], "mirror"), element("td", row[ROW.catalog], "catalog"),
                element("td", row[ROW.enabled] ? "yes" : "no", "enabled"),
                element("td", bytes(row[ROW.size]), "size"), element("td", row[ROW.posted]));
    body.append(line);
  }
  $("product-table").replaceChild(body, $("product-table").tBodies[0]);
  $("shown-count").textContent = rows.length > SHOWN_ROWS
    ? `${SHOWN_ROWS} of ${rows.length} matching (${page.rows.length} in all); filter to see the rest`
    : `${rows.length} of ${page.rows.length} products`;
  for (const header of document.querySelectorAll("th[data-column]")) {
    const sorted = Number(header.dataset.column) === page.sortColumn;
    header.className = sorted ? (page.sortUp ? "sorted-up" : "sorted-down") : "";
    header.setAttribute("aria-sort", sorted ? (page.sortUp ? "ascending" : "descending") : "none");
  }
}

// The detail opens beside the table, takes the focus and gives it back to the product's link
// (as the table now draws it) when it closes (Escape or its button).
async function showDetail(productId) {
  try {
    const product = await api(`/product?id=${encodeURIComponent(productId)}`);
    $("detail-id").textContent = productId;
    const fields = $("detail-fields");
    fields.replaceChildren();
    const title = (product.localization && (product.localization.English || product.localization.en)) || {};
    const shown = [
      ["Title", title.title], ["Family", product.IFPkgFlagProductFamily],
      ["Version", product.CFBundleShortVersionString], ["Mirror state", product.mirror],
      ["Policy", product.fetchPolicy || "immediate"],
      ["Here", product.fetchPolicy ? bytes(product.DownloadedSize || 0) : "-"],
      ["Catalog state", product.CompositeProductState], ["Enabled", product.enable ? "yes" : "no"],
      ["Posted", product.PostDate], ["Size", bytes(product.TotalDownloadSize)],
      ["Catalogs", (product.catalogs || []).join(", ")],
      ["Replaces", (product.DeprecatedProducts || []).join(", ")],
      ["Replaced by", (product.Deprecators || []).join(", ")],
    ];
    for (const [label, value] of shown) {
      fields.append(element("dt", label), element("dd", value === undefined || value === "" ? "-" : value));
    }
    fillTable("detail-files", product.files || [], (file) => [
      element("td", file.path), element("td", bytes(file.size), "size"),
      element("td", file.present ? "yes" : "no")]);
    page.detailId = productId;
    $("detail").hidden = false;
    $("detail-close").focus();
  } catch (error) {
    say(`Product ${productId}: ${error.message}`, true);
  }
}

function settingText(value) {
  if (value === undefined || value === null) return "";
  if (Array.isArray(value)) return value.join(",");
  return String(value);
}

function showSettings(settings) {
  const body = document.createElement("tbody");
  for (const setting of settings) {
    const line = element("tr");
    line.dataset.key = setting.key;
    const input = element("input");
    input.value = settingText(setting.value);
    input.setAttribute("aria-label", setting.key);
    const cell = element("td");
    cell.append(input);
    const apply = element("td");
    if (setting.shapesWebServer) {
      input.disabled = true;
      apply.textContent = "with ondrelctl";
    } else {
      const button = element("button", "Set");
      button.type = "button";
      button.addEventListener("click", async () => {
        try {
          await post("/settings", [["key", setting.key], ["value", input.value.trim()]]);
          say(`${setting.key} set.`);
          api("/log").then(showAudit).catch(() => {});
          api("/settings").then(showSettings).catch(() => {});
        } catch (error) {
          say(error.message, true);
        }
      });
      apply.append(button);
    }
    line.append(element("td", setting.key), cell, apply);
    body.append(line);
  }
  $("settings-table").replaceChild(body, $("settings-table").tBodies[0]);
}

function showClients(days) {
  fillTable("clients-table", days, (day) => [
    element("td", day.day), element("td", day.catalog), element("td", day.requests, "size"),
    element("td", bytes(day.bytes), "size"), element("td", day.clients, "size")]);
}

function delayText(seconds) {
  if (seconds > 0 && seconds % 86400 === 0) return `${seconds / 86400} d`;
  if (seconds > 0 && seconds % 3600 === 0) return `${seconds / 3600} h`;
  return `${seconds} s`;
}

// The rings and the products on their way through them, each with the actions that apply; the
// section is there only while rings are defined.
function showRollout(report) {
  $("rollout").hidden = report.rings.length === 0;
  if (report.rings.length === 0) return;
  $("rings-summary").textContent = "Rings: " + report.rings.map((ring) =>
    ring.delaySeconds > 0 ? `${ring.name} after ${delayText(ring.delaySeconds)}`
                          : `${ring.name} at once`).join(", ") +
    (report.products.length === 0 ? ". No product is being rolled out." : ".");
  const first = report.rings[0].name;
  fillTable("rollout-table", report.products, (product) => {
    const stopped = product.heldAt || product.rolledBackTo;
    const actions = [[stopped ? "resume" : "hold", stopped ? "Resume" : "Hold"],
                     ["advance", "Advance"], ["open", "Open to all"]];
    if (!product.rolledBackTo) actions.push(["rollback", `Roll back to ${first}`]);
    const cell = element("td");
    for (const [action, label] of actions) {
      const button = element("button", label);
      button.type = "button";
      button.setAttribute("aria-label", `${label}: ${product.productId}`);
      button.addEventListener("click", () =>
        rolloutAction(action, product.productId, action === "rollback" ? first : ""));
      cell.append(button);
    }
    const next = product.heldAt ? "held"
      : product.rolledBackTo ? `rolled back to ${product.rolledBackTo}`
      : product.nextRing ? `${product.nextRing}, ${new Date(product.nextOpening).toLocaleString()}`
      : "-";
    const clients = report.rings
      .map((ring) => `${ring.name} ${(product.clients || {})[ring.name] ?? 0}`).join(", ");
    return [element("td", product.productId), element("td", product.reached.join(", ") || "none"),
            element("td", next), element("td", clients), cell];
  });
  fillTable("rollout-events", report.events.slice(-20).reverse(), (event) => [
    element("td", new Date(event.when).toLocaleString()), element("td", event.productId),
    element("td", event.action), element("td", event.requester)]);
}

async function rolloutAction(action, productId, ring) {
  try {
    await post("/rollout", [["action", action], ["id", productId], ["ring", ring]]);
    say(`Posted: ${action} ${productId}. ` + (page.daemonRunning
      ? "ondrd_syncd carries it out within seconds."
      : "No ondrd_syncd is running: it is carried out when one runs."));
    setTimeout(refresh, 1500);
  } catch (error) {
    say(`Nothing was posted: ${error.message}`, true);
  }
}

function showAudit(entries) {
  fillTable("audit-table", entries, (entry) => [
    element("td", new Date(entry.time).toLocaleString()), element("td", entry.requester),
    element("td", entry.action), element("td", entry.products.join(" "))]);
}

// The plan reads every catalog's cache (seconds at 10,000 products), so the table does not wait
// for it.
async function refresh() {
  $("plan-summary").textContent = "working it out...";
  api("/plan").then(showPlan).catch((error) => {
    $("plan-summary").textContent = `The plan could not be read: ${error.message}`;
  });
  try {
    const [status, products, audit, clients, rollout] = await Promise.all(
      [api("/status"), api("/products"), api("/log"), api("/clients"), api("/rollout")]);
    page.rows = products;
    showStatus(status);
    showProducts();
    showAudit(audit);
    showClients(clients);
    showRollout(rollout);
    // Drawn once: a refresh never wipes what the administrator is typing.
    if ($("settings-table").tBodies[0].rows.length === 0) showSettings(await api("/settings"));
    document.body.dataset.loaded = String(Date.now());
  } catch (error) {
    say(`The server could not be read: ${error.message}`, true);
  }
}

function closeDetail() {
  $("detail").hidden = true;
  const link = document.querySelector(
    `#product-table tr[data-id="${CSS.escape(page.detailId)}"] td.id a`);
  if (link) link.focus();
}

// Only the selected products the filter shows are changed: a selection hidden by the filter is
// never acted on unseen. Removing, and disabling many, ask first.
async function change(action) {
  const shown = new Set(matchingRows().slice(0, SHOWN_ROWS).map((row) => row[ROW.id]));
  const ids = [...page.selected].filter((id) => shown.has(id));
  const hidden = page.selected.size - ids.length;
  if (ids.length === 0) {
    return say(hidden > 0 ? `The ${hidden} selected products are hidden by the filter; show them first.`
                          : "Select products first.", true);
  }
  const count = `${ids.length} product${ids.length === 1 ? "" : "s"}`;
  if ((action === "remove" || (action === "disable" && ids.length > 1)) &&
      !window.confirm(`${action === "remove" ? "Remove the files of" : "Disable"} ${count}?`)) {
    return say("Nothing was posted.");
  }
  try {
    const policy = action === "mirror" ? $("mirror-policy").value : "";
    await post("/changes", [["action", action], ...(policy ? [["policy", policy]] : []),
                            ...ids.map((id) => ["id", id])]);
    const when = page.daemonRunning
      ? "ondrd_syncd carries it out within seconds."
      : "No ondrd_syncd is running: it is carried out when one runs.";
    const left = hidden > 0 ? ` ${hidden} selected but hidden by the filter were left out.` : "";
    say(`Posted: ${action} ${count}. ${when}${left}`);
    for (const id of ids) page.selected.delete(id);
    setTimeout(refresh, 1500);
  } catch (error) {
    say(`Nothing was posted: ${error.message}`, true);
  }
}

// The page after a login: its controls wired once, then the server's state.
function wire() {
  $("refresh").addEventListener("click", refresh);
  $("sync-now").addEventListener("click", async () => {
    try {
      await post("/sync", []);
      say(page.daemonRunning ? "Sync requested; ondrd_syncd starts a pass within seconds."
                             : "Sync requested; no ondrd_syncd is running to start it.");
      setTimeout(refresh, 2000);
    } catch (error) {
      say(`Sync not requested: ${error.message}`, true);
    }
  });
  $("logout").addEventListener("click", async () => {
    try {
      await post("/logout", []);
    } catch (error) {
      return say(`Not logged out: ${error.message}`, true);
    }
    page.token = "";
    showLoggedIn("");
    say("Logged out.");
  });
  $("filter-text").addEventListener("input", showProducts);
  $("filter-state").addEventListener("change", showProducts);
  $("select-all").addEventListener("change", (event) => {
    for (const row of matchingRows().slice(0, SHOWN_ROWS)) {
      if (event.target.checked) page.selected.add(row[ROW.id]); else page.selected.delete(row[ROW.id]);
    }
    showProducts();
  });
  for (const header of document.querySelectorAll("th[data-column]")) {
    const sort = () => {
      const column = Number(header.dataset.column);
      page.sortUp = page.sortColumn === column ? !page.sortUp : true;
      page.sortColumn = column;
      showProducts();
    };
    header.tabIndex = 0;
    header.addEventListener("click", sort);
    header.addEventListener("keydown", (event) => {
      if (event.key !== "Enter" && event.key !== " ") return;
      event.preventDefault();
      sort();
    });
  }
  for (const button of document.querySelectorAll("button[data-action]")) {
    button.addEventListener("click", () => change(button.dataset.action));
  }
  $("detail-close").addEventListener("click", closeDetail);
  document.addEventListener("keydown", (event) => {
    if (event.key === "Escape" && !$("detail").hidden) closeDetail();
  });
}

// Shows the page to the user, or the login form when there is none.
function showLoggedIn(user) {
  $("user").textContent = user;
  $("login").hidden = user !== "";
  $("app").hidden = user === "";
  for (const id of ["refresh", "sync-now", "logout"]) $(id).hidden = user === "";
  if (user === "") $("login-user").focus();
}

async function enter(session) {
  page.token = session.token;
  showLoggedIn(session.user);
  say("");
  await refresh();
}

async function start() {
  wire();
  $("login").addEventListener("submit", async (event) => {
    event.preventDefault();
    try {
      const session = await api("/login", {
        method: "POST",
        headers: { "Content-Type": "application/x-www-form-urlencoded" },
        body: new URLSearchParams(new FormData($("login"))),
      });
      $("login-password").value = "";
      await enter(session);
    } catch (error) {
      say(`Not logged in: ${error.message}`, true);
    }
  });
  try {
    await enter(await api("/session"));
  } catch (error) {
    showLoggedIn("");
  }
}

start();

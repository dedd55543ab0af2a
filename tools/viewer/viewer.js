// Page logic of the viewer: one WebSocket to the relay, one card per group
// with the latest frame plotted on a canvas, the command buttons, and a
// reconnect loop that survives relay restarts.
(function () {
  'use strict';

  const RECONNECT_MIN_MS = 500;
  const RECONNECT_MAX_MS = 5000;
  const RATE_WINDOW_MS = 1000; // packets/s counts arrivals over this window
  const COLORS = ['#1f6fb4', '#d2691e'];

  const $ = (id) => document.getElementById(id);
  const ui = {
    url: $('url'), status: $('status'), role: $('role'), reply: $('reply'), interval: $('interval'),
    packets: $('packet-count'), malformed: $('malformed-count'), lastError: $('last-error'),
    groups: $('groups'), noData: $('no-data'),
  };
  const commandButtons = ['send-interval', 'dump-csv', 'dump-buf'].map($);
  const params = new URLSearchParams(location.search);
  // An operator's token goes with the connection: browsers cannot set its headers.
  const token = params.get('token');

  let socket = null;
  let wanted = false; // the user wants a connection: reconnect after a close
  let retryMs = RECONNECT_MIN_MS;
  let retryTimer = null;
  let packetCount = 0;
  let malformedCount = 0;
  const groups = new Map(); // key -> { card, canvas, meta, block, arrivals, dirty }

  function setStatus(state, text) {
    ui.status.dataset.state = state;
    ui.status.textContent = text;
  }

  function connect() {
    clearTimeout(retryTimer);
    retryTimer = null;
    if (socket) {
      socket.onclose = null;
      socket.close();
    }
    wanted = true;
    const url = ui.url.value.trim();
    let ws;
    try {
      ws = new WebSocket(withToken(url));
    } catch (e) {
      wanted = false;
      setStatus('idle', `bad address: ${e.message}`);
      return;
    }
    socket = ws;
    ws.binaryType = 'arraybuffer';
    setStatus('connecting', `connecting to ${url}`);
    ws.onopen = () => {
      retryMs = RECONNECT_MIN_MS;
      setStatus('connected', `connected to ${url}`);
      setReadOnly(false); // the relay decides again for every connection
    };
    ws.onmessage = (ev) => (typeof ev.data === 'string' ? onText(ev.data) : onPacket(ev.data));
    ws.onclose = () => {
      if (socket !== ws) return;
      socket = null;
      if (!wanted) {
        setStatus('idle', 'not connected');
        return;
      }
      setStatus('reconnecting', `no relay at ${url}; retrying in ${(retryMs / 1000).toFixed(1)} s`);
      retryTimer = setTimeout(connect, retryMs);
      retryMs = Math.min(RECONNECT_MAX_MS, retryMs * 2);
    };
  }

  function withToken(url) {
    if (!token) return url;
    try {
      const u = new URL(url);
      u.searchParams.set('token', token);
      return u.href;
    } catch (e) {
      return url; // the WebSocket reports the bad address
    }
  }

  // A relay that keeps commands to operators answers a viewer's command with
  // the command and " DENIED".
  function onText(text) {
    showReply(text);
    if (text.endsWith(' DENIED')) setReadOnly(true);
  }

  function setReadOnly(readOnly) {
    ui.role.hidden = !readOnly;
    for (const b of commandButtons) b.disabled = readOnly;
  }

  function disconnect() {
    wanted = false;
    clearTimeout(retryTimer);
    if (socket) socket.close();
    else setStatus('idle', 'not connected');
  }

  function send(text) {
    if (!socket || socket.readyState !== WebSocket.OPEN) {
      showReply(`not sent (not connected): ${text}`);
      return false;
    }
    socket.send(text);
    return true;
  }

  function showReply(text) {
    ui.reply.textContent = text;
    ui.reply.title = new Date().toLocaleTimeString();
  }

  function onPacket(buffer) {
    packetCount++;
    const r = RdvDecoder.decodePacket(buffer);
    if (!r.ok) {
      malformedCount++;
      ui.lastError.textContent =
        `last malformed packet (${buffer.byteLength} bytes): offset ${r.error.offset}: ${r.error.message}`;
    }
    const now = performance.now();
    for (const b of r.blocks) {
      const g = groupFor(RdvDecoder.blockKey(b));
      g.block = b;
      g.arrivals.push(now);
      g.dirty = true;
    }
  }

  function groupFor(key) {
    let g = groups.get(key);
    if (g) return g;
    const card = document.createElement('section');
    card.className = 'group';
    card.dataset.group = key;
    const title = document.createElement('h2');
    title.textContent = key === 'single' ? 'single frame' : `group ${key}`;
    const meta = document.createElement('div');
    meta.className = 'meta';
    const canvas = document.createElement('canvas');
    card.append(title, meta, canvas);
    g = { key, card, canvas, meta, block: null, arrivals: [], dirty: true };
    groups.set(key, g);
    // Cards in group order; the single-frame card last.
    const order = (k) => (k === 'single' ? 1000 : Number(k));
    const next = [...groups.values()].filter((o) => order(o.key) > order(key))
      .sort((a, b) => order(a.key) - order(b.key))[0];
    ui.groups.insertBefore(card, next ? next.card : null);
    if (ui.noData) ui.noData.remove();
    return g;
  }

  function packetsPerSecond(g, now) {
    while (g.arrivals.length && now - g.arrivals[0] > RATE_WINDOW_MS) g.arrivals.shift();
    return g.arrivals.length * (1000 / RATE_WINDOW_MS);
  }

  function formatTime(ms) {
    // Device time stamps are milliseconds since 1970 when the clock is set.
    const plausible = ms > 946684800000 && ms < 4102444800000;
    return plausible ? `${ms} ms (${new Date(ms).toISOString()})` : `${ms} ms`;
  }

  function updateMeta(g, now) {
    const b = g.block;
    if (!b) return;
    let min = Infinity;
    let max = -Infinity;
    for (const v of b.values) {
      if (v < min) min = v;
      if (v > max) max = v;
    }
    const range = b.values.length ? `min ${min}  max ${max}` : 'header only, no samples';
    g.meta.textContent =
      `t ${formatTime(b.timeMs)}\n` +
      `${packetsPerSecond(g, now)} pk/s  ${b.sampleCount} samples  ${range}  rate ${b.rate.toPrecision(6)}`;
    g.card.dataset.pps = String(packetsPerSecond(g, now));
    g.card.dataset.time = String(b.timeMs);
  }

  function draw(g) {
    const c = g.canvas;
    const dpr = window.devicePixelRatio || 1;
    const w = Math.max(50, Math.round(c.clientWidth * dpr));
    const h = Math.max(50, Math.round(c.clientHeight * dpr));
    if (c.width !== w || c.height !== h) {
      c.width = w;
      c.height = h;
    }
    const ctx = c.getContext('2d');
    ctx.clearRect(0, 0, w, h);
    ctx.fillStyle = '#fbfcfd';
    ctx.fillRect(0, 0, w, h);
    const v = g.block ? g.block.values : [];
    const n = v.length / 2;
    if (n < 1) {
      ctx.fillStyle = '#889';
      ctx.font = `${12 * dpr}px sans-serif`;
      ctx.fillText('no samples in this frame', 8 * dpr, h / 2);
      return;
    }
    let min = Infinity;
    let max = -Infinity;
    for (const x of v) {
      if (x < min) min = x;
      if (x > max) max = x;
    }
    if (min === max) {
      min -= 1;
      max += 1;
    }
    const pad = 6 * dpr;
    const y = (val) => h - pad - ((val - min) / (max - min)) * (h - 2 * pad);
    if (min < 0 && max > 0) {
      ctx.strokeStyle = '#dde';
      ctx.beginPath();
      ctx.moveTo(0, y(0));
      ctx.lineTo(w, y(0));
      ctx.stroke();
    }
    ctx.lineWidth = dpr;
    for (let s = 0; s < 2; s++) {
      ctx.strokeStyle = COLORS[s];
      ctx.beginPath();
      if (n <= w) {
        for (let i = 0; i < n; i++) {
          const px = n === 1 ? w / 2 : (i / (n - 1)) * (w - 1);
          if (i === 0) ctx.moveTo(px, y(v[2 * i + s]));
          else ctx.lineTo(px, y(v[2 * i + s]));
        }
        if (n === 1) ctx.arc(w / 2, y(v[s]), 2 * dpr, 0, 2 * Math.PI);
      } else {
        // More samples than pixels: one vertical min-max stroke per column.
        for (let px = 0; px < w; px++) {
          const from = Math.floor((px * n) / w);
          const to = Math.max(from + 1, Math.floor(((px + 1) * n) / w));
          let lo = Infinity;
          let hi = -Infinity;
          for (let i = from; i < to; i++) {
            const val = v[2 * i + s];
            if (val < lo) lo = val;
            if (val > hi) hi = val;
          }
          ctx.moveTo(px + 0.5, y(lo));
          ctx.lineTo(px + 0.5, y(hi) - 0.5);
        }
      }
      ctx.stroke();
    }
    ctx.fillStyle = '#667';
    ctx.font = `${10 * dpr}px monospace`;
    ctx.fillText(String(max), 3 * dpr, 11 * dpr);
    ctx.fillText(String(min), 3 * dpr, h - 3 * dpr);
    // Legend: which line is the first and which the second value of a sample.
    ctx.textAlign = 'right';
    ctx.fillStyle = COLORS[0];
    ctx.fillText('value 0', w - 60 * dpr, 11 * dpr);
    ctx.fillStyle = COLORS[1];
    ctx.fillText('value 1', w - 4 * dpr, 11 * dpr);
    ctx.textAlign = 'left';
  }

  function frame() {
    for (const g of groups.values()) {
      if (!g.dirty) continue;
      g.dirty = false;
      draw(g);
      updateMeta(g, performance.now());
    }
    ui.packets.textContent = String(packetCount);
    ui.malformed.textContent = String(malformedCount);
    requestAnimationFrame(frame);
  }

  // Rates must fall to zero when the data stops, so refresh them on a clock too.
  setInterval(() => {
    const now = performance.now();
    for (const g of groups.values()) updateMeta(g, now);
  }, 250);

  $('connect-form').addEventListener('submit', (ev) => {
    ev.preventDefault();
    connect();
  });
  $('disconnect').addEventListener('click', disconnect);
  $('interval-form').addEventListener('submit', (ev) => {
    ev.preventDefault();
    const ms = Math.trunc(Number(ui.interval.value));
    if (!Number.isFinite(ms) || ms < 2 || ms > 65535) {
      showReply('the interval must be 2 to 65535 ms');
      return;
    }
    if (send(`ims:${ms}`)) showReply(`sent ims:${ms}, waiting for the reply`);
  });
  for (const [id, cmd] of [['dump-csv', 'csv:'], ['dump-buf', 'buf:']]) {
    $(id).addEventListener('click', () => {
      if (send(cmd)) showReply(`sent ${cmd} (the relay does not answer this command)`);
    });
  }
  window.addEventListener('resize', () => groups.forEach((g) => (g.dirty = true)));

  // Served by a relay, the page talks to that relay; opened from disk, to the address typed.
  const own = location.protocol === 'https:' ? 'wss:' : location.protocol === 'http:' ? 'ws:' : null;
  if (own) ui.url.value = `${own}//${location.host}`;
  if (params.get('url')) ui.url.value = params.get('url');
  requestAnimationFrame(frame);
  connect();
})();

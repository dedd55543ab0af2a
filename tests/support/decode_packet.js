// Decodes one packet, given in base64 on standard input, with the viewer's
// decoder (its path the first argument), and prints the result as JSON:
// typed arrays as arrays, numbers JSON has no word for as strings.
'use strict';
const { decodePacket } = require(process.argv[2]);

let input = '';
process.stdin.on('data', (d) => { input += d; });
process.stdin.on('end', () => {
  const bytes = Buffer.from(input, 'base64');
  // At an odd offset inside a larger buffer, as a browser may hand it over.
  const buffer = new Uint8Array(bytes.length + 1);
  buffer.set(bytes, 1);
  const r = decodePacket(buffer.subarray(1));
  const plain = (v) => (ArrayBuffer.isView(v) ? Array.from(v)
    : typeof v === 'number' && !Number.isFinite(v) ? String(v) : v);
  const blocks = r.blocks.map((b) => Object.fromEntries(Object.entries(b).map(([k, v]) => [k, plain(v)])));
  process.stdout.write(JSON.stringify({ ok: r.ok, error: r.error, blocks }));
});

// Test-local writer of relay packets, independent of the decoder: lays the
// fields out in order with explicit widths, little-endian.
'use strict';

class Writer {
  constructor() { this.bytes = []; }
  u8(x) { this.bytes.push(x & 0xff); }
  i8(x) { this.u8(x); }
  u16(x) { this.u8(x); this.u8(x >> 8); }
  i16(x) { this.u16(x & 0xffff); }
  i32(x) { for (let i = 0; i < 4; i++) this.u8(x >> (8 * i)); }
  f64(x) { const b = Buffer.alloc(8); b.writeDoubleLE(x); for (const c of b) this.u8(c); }
}

// fs: { channel, frameType, small: [4 bytes], sampleCount, word5, wordA,
//         wordB, intA, intB, timeMs, rate, counterA, counterB, floatA, floatB,
//         values: [two per sample] (empty: header only), lengthOverride }
function block(fs) {
  const w = new Writer();
  w.u16(0);
  for (const x of fs.channel ? [5, 3, 2, 6] : [5, 4, 2, 5]) w.i16(x);
  w.i8(fs.frameType);
  for (const x of fs.small) w.i8(x);
  w.u16(fs.sampleCount);
  w.i16(fs.word5);
  w.i16(fs.wordA);
  if (!fs.channel) w.i16(fs.wordB);
  w.i32(fs.intA);
  w.i32(fs.intB);
  for (const x of [fs.timeMs, fs.rate, fs.counterA, fs.counterB, fs.floatA]) w.f64(x);
  if (fs.channel) w.f64(fs.floatB);
  for (const x of fs.values) (fs.channel ? w.i16(x) : w.i32(x));
  const len = fs.lengthOverride ?? w.bytes.length;
  w.bytes[0] = len & 0xff;
  w.bytes[1] = (len >> 8) & 0xff;
  return Uint8Array.from(w.bytes);
}

function concat(parts) {
  const out = new Uint8Array(parts.reduce((n, p) => n + p.length, 0));
  let o = 0;
  for (const p of parts) { out.set(p, o); o += p.length; }
  return out;
}

function pattern(samples, scale) {
  const values = [];
  for (let i = 0; i < samples; i++) values.push(((i % 7) - 3) * scale, -(i % 5) * scale + 1);
  return values;
}

function single(samples, timeMs = 1500) {
  return {
    channel: false, frameType: 2, small: [1, 0, 0, 1], sampleCount: samples, word5: -2, wordA: 44, wordB: -46,
    intA: -100000, intB: 7, timeMs, rate: 0.000002, counterA: 18446744073709551615, counterB: 3, floatA: 1.5,
    floatB: 0, values: pattern(samples, 100000),
  };
}

function channel(group, samples, timeMs = 1500) {
  return {
    channel: true, frameType: 1, small: [15, 9, group, -7], sampleCount: samples, word5: 5, wordA: -20, wordB: 0,
    intA: 40, intB: -52, timeMs, rate: 1000 / 3, counterA: 24, counterB: 32, floatA: -0.25, floatB: 48.5,
    values: pattern(samples, 1000),
  };
}

module.exports = { block, concat, single, channel };

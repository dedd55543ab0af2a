// Reader of the binary packets the relay sends to its WebSocket clients,
// shared by the viewer page (a plain script: pages opened as file:// cannot
// load modules) and by its node tests (CommonJS).
//
// A packet is either one single-frame block (fixed words 5,4,2,5 after the
// length word, 8-byte samples) or a run of channel sub-blocks (fixed words
// 5,3,2,6, 4-byte samples), one per channel group. Every read is
// bounds-checked; the first fault ends decoding with its byte offset, and the
// blocks decoded before it are kept.
(function (root, factory) {
  const api = factory();
  if (typeof module === 'object' && module.exports) module.exports = api;
  else root.RdvDecoder = api;
})(typeof self !== 'undefined' ? self : this, function () {
  'use strict';

  const SINGLE_HEADER = 71;
  const CHANNEL_HEADER = 77;
  const LAYOUT_PROBE = 10; // length word plus the four fixed words
  const MAX_SAMPLES = 13000; // the relay drops the payload of larger frames

  function fail(result, offset, message) {
    result.ok = false;
    result.error = { offset, message };
    return result;
  }

  function readSingleHeader(v, p, b) {
    b.frameType = v.getInt8(p + 10);
    b.flagBit1 = v.getInt8(p + 11);
    b.flagBit2 = v.getInt8(p + 12);
    b.flagBit3 = v.getInt8(p + 13);
    b.flagBit0 = v.getInt8(p + 14);
    b.sampleCount = v.getUint16(p + 15, true);
    b.word5 = v.getInt16(p + 17, true);
    b.word44 = v.getInt16(p + 19, true);
    b.word46 = v.getInt16(p + 21, true);
    b.intA = v.getInt32(p + 23, true);
    b.intB = v.getInt32(p + 27, true);
    b.timeMs = v.getFloat64(p + 31, true);
    b.rate = v.getFloat64(p + 39, true);
    b.counterA = v.getFloat64(p + 47, true);
    b.counterB = v.getFloat64(p + 55, true);
    b.floatA = v.getFloat64(p + 63, true);
  }

  function readChannelHeader(v, p, b) {
    b.frameType = v.getInt8(p + 10);
    b.nibbleLow = v.getInt8(p + 11);
    b.nibbleHigh = v.getInt8(p + 12);
    b.group = v.getInt8(p + 13);
    b.byte7 = v.getInt8(p + 14);
    b.sampleCount = v.getUint16(p + 15, true);
    b.word5 = v.getInt16(p + 17, true);
    b.word20 = v.getInt16(p + 19, true);
    b.intA = v.getInt32(p + 21, true);
    b.intB = v.getInt32(p + 25, true);
    b.timeMs = v.getFloat64(p + 29, true);
    b.rate = v.getFloat64(p + 37, true);
    b.counterA = v.getFloat64(p + 45, true);
    b.counterB = v.getFloat64(p + 53, true);
    b.floatA = v.getFloat64(p + 61, true);
    b.floatB = v.getFloat64(p + 69, true);
  }

  // Two values per sample: signed 16-bit pairs for 4-byte samples, signed
  // 32-bit pairs for 8-byte samples.
  function readValues(v, p, b) {
    const n = 2 * b.sampleCount;
    if (b.layout === 'channel') {
      const out = new Int16Array(n);
      for (let i = 0; i < n; i++) out[i] = v.getInt16(p + 2 * i, true);
      return out;
    }
    const out = new Int32Array(n);
    for (let i = 0; i < n; i++) out[i] = v.getInt32(p + 4 * i, true);
    return out;
  }

  function toView(data) {
    if (data instanceof ArrayBuffer) return new DataView(data);
    if (ArrayBuffer.isView(data)) return new DataView(data.buffer, data.byteOffset, data.byteLength);
    throw new TypeError('packet must be an ArrayBuffer or a typed array');
  }

  // Returns { ok, blocks, error: null | { offset, message } }.
  function decodePacket(data) {
    const v = toView(data);
    const total = v.byteLength;
    const result = { ok: false, blocks: [], error: null };
    if (total === 0) return fail(result, 0, 'empty message');

    let pos = 0;
    while (pos < total) {
      const remaining = total - pos;
      if (remaining < LAYOUT_PROBE)
        return fail(result, pos, `truncated block: ${remaining} bytes, the layout words need ${LAYOUT_PROBE}`);
      const w = [2, 4, 6, 8].map((o) => v.getInt16(pos + o, true));
      let layout;
      if (w[0] === 5 && w[1] === 4 && w[2] === 2 && w[3] === 5) layout = 'single';
      else if (w[0] === 5 && w[1] === 3 && w[2] === 2 && w[3] === 6) layout = 'channel';
      else return fail(result, pos + 2, `unknown layout words ${w.join(',')}`);
      // A single frame is a packet of its own; it never follows a sub-block.
      if (layout === 'single' && pos !== 0)
        return fail(result, pos, 'single-frame block inside a channel packet');
      const header = layout === 'single' ? SINGLE_HEADER : CHANNEL_HEADER;
      if (remaining < header) return fail(result, pos, `truncated header: ${remaining} bytes, need ${header}`);

      const b = { layout, offset: pos, size: 0, lengthWord: v.getUint16(pos, true), hasPayload: false };
      if (layout === 'single') readSingleHeader(v, pos, b);
      else readChannelHeader(v, pos, b);
      if (layout === 'single') b.group = null;

      // A block is either header-only (the relay did not trust the frame) or
      // the header plus the whole payload.
      const sampleSize = layout === 'single' ? 8 : 4;
      const full = header + sampleSize * b.sampleCount;
      const countFits = b.sampleCount <= MAX_SAMPLES;
      const truncated = () =>
        fail(result, pos + header,
          `truncated payload: ${b.sampleCount} samples need ${full - header} bytes, have ${remaining - header}`);
      if (layout === 'single') {
        // The length word of a large single frame wraps at 16 bits, so the
        // message size decides and the length word must agree with it.
        if (countFits && remaining === full && full !== header) b.hasPayload = true;
        else if (remaining !== header) {
          if (countFits && remaining > header && remaining < full) return truncated();
          const end = countFits && remaining > full ? full : header;
          return fail(result, pos + end, `${remaining - end} bytes after the end of the frame`);
        }
      } else {
        if (b.lengthWord === header) b.hasPayload = false;
        else if (countFits && b.lengthWord === full) b.hasPayload = true;
        else
          return fail(result, pos,
            `length word ${b.lengthWord} fits neither a bare header (${header}) nor ${b.sampleCount} samples (${full})`);
        if (b.hasPayload && remaining < full) return truncated();
      }
      b.size = b.hasPayload ? full : header;
      if ((b.size & 0xffff) !== b.lengthWord)
        return fail(result, pos, `length word ${b.lengthWord} does not match the block size ${b.size}`);
      b.values = b.hasPayload ? readValues(v, pos + header, b) : new Int32Array(0);
      result.blocks.push(b);
      pos += b.size;
    }
    result.ok = true;
    return result;
  }

  // Key under which the viewer keeps the latest block: the group number for
  // channel blocks, "single" for single frames.
  function blockKey(b) {
    return b.layout === 'single' ? 'single' : String(b.group);
  }

  return { decodePacket, blockKey, SINGLE_HEADER, CHANNEL_HEADER, MAX_SAMPLES };
});

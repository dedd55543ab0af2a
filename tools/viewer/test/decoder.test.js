// The viewer's packet decoder against the test-local encoder.
'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { decodePacket, blockKey } = require('../rdv_decoder.js');
const enc = require('./rdv_encoder.js');

const ch3 = enc.block(enc.channel(3, 5));
const chBare = enc.block(enc.channel(-2, 0));
const singleOf = (n) => enc.block(enc.single(n));
const withCount = (fs, count) => Object.assign(fs, { sampleCount: count });
const badWords = singleOf(1);
badWords[6] = 9;

// [name, packet, ok, sample counts of the decoded blocks, error offset, error text]
const outcomes = [
  ['single frame, count above limit, header only', enc.block(withCount(enc.single(0), 13001)), true, [13001]],
  ['single frame, 13000 samples, length word wraps', singleOf(13000), true, [13000]],
  ['channel packet, three sub-blocks, one bare',
    enc.concat([enc.block(enc.channel(1, 2)), chBare, enc.block(enc.channel(7, 13000))]), true, [2, 0, 13000]],
  ['channel packet, header-only sub-blocks with counts',
    enc.concat([enc.block(withCount(enc.channel(9, 0), 60000)), enc.block(withCount(enc.channel(4, 0), 12))]),
    true, [60000, 12]],
  ['empty message', new Uint8Array(0), false, [], 0, 'empty'],
  ['single frame cut inside the header', singleOf(2).slice(0, 70), false, [], 0, 'truncated header'],
  ['single frame cut inside a sample', singleOf(4).slice(0, 71 + 16 + 3), false, [], 71, 'truncated payload'],
  ['single frame with trailing bytes', enc.concat([singleOf(2), new Uint8Array(3)]), false, [], 87, 'after the end'],
  ['channel packet cut in the second header', enc.concat([ch3, chBare]).slice(0, ch3.length + 40), false, [5],
    ch3.length, 'truncated header'],
  ['channel packet cut in the second payload', enc.concat([ch3, ch3]).slice(0, 2 * ch3.length - 1), false, [5],
    ch3.length + 77, 'truncated payload'],
  ['channel packet, four stray bytes at the end', enc.concat([ch3, new Uint8Array(4)]), false, [5], ch3.length,
    'layout words'],
  ['unknown layout words', badWords, false, [], 2, 'unknown layout'],
  ['channel length word fits nothing', enc.block(Object.assign(enc.channel(5, 3), { lengthOverride: 90 })), false,
    [], 0, 'length word 90'],
  ['single length word disagrees with the size',
    enc.block(Object.assign(enc.single(1), { lengthOverride: 71 })), false, [], 0, 'does not match'],
  ['single frame after a channel sub-block', enc.concat([ch3, singleOf(0)]), false, [5], ch3.length,
    'inside a channel'],
];

for (const [name, packet, ok, counts, errorOffset, errorText] of outcomes) {
  test(`outcome: ${name}`, () => {
    const r = decodePacket(packet);
    assert.equal(r.ok, ok, r.error && r.error.message);
    assert.deepEqual(r.blocks.map((b) => b.sampleCount), counts);
    let offset = 0;
    for (const b of r.blocks) {
      assert.equal(b.offset, offset);
      assert.equal(b.lengthWord, b.size & 0xffff);
      assert.equal(b.values.length, b.hasPayload ? 2 * b.sampleCount : 0);
      offset += b.size;
    }
    if (ok) {
      assert.equal(offset, packet.length);
      assert.equal(r.error, null);
    } else {
      assert.equal(r.error.offset, errorOffset);
      assert.match(r.error.message, new RegExp(errorText));
    }
  });
}

function checkFields(fs, b) {
  assert.equal(b.layout, fs.channel ? 'channel' : 'single');
  assert.equal(b.frameType, fs.frameType);
  const small = fs.channel ? [b.nibbleLow, b.nibbleHigh, b.group, b.byte7]
    : [b.flagBit1, b.flagBit2, b.flagBit3, b.flagBit0];
  assert.deepEqual(small, fs.small);
  assert.equal(b.sampleCount, fs.sampleCount);
  assert.equal(b.word5, fs.word5);
  if (fs.channel) {
    assert.equal(b.word20, fs.wordA);
    assert.equal(b.floatB, fs.floatB);
    assert.equal(blockKey(b), String(fs.small[2]));
  } else {
    assert.equal(b.word44, fs.wordA);
    assert.equal(b.word46, fs.wordB);
    assert.equal(b.group, null);
    assert.equal(blockKey(b), 'single');
  }
  for (const f of ['intA', 'intB', 'timeMs', 'rate', 'counterA', 'counterB', 'floatA']) assert.equal(b[f], fs[f], f);
  assert.deepEqual(Array.from(b.values), fs.values);
}

const fieldCases = [
  ['single frame, every field, extreme 32-bit samples',
    [Object.assign(enc.single(5), { values: [-2147483648, 1, -200000, 2147483647, ...enc.single(5).values.slice(4)] })]],
  ['single frame, infinite rate, large time', [Object.assign(enc.single(2, 1700000000123), { rate: Infinity })]],
  ['channel sub-blocks, negative group and extreme 16-bit samples',
    [Object.assign(enc.channel(-128, 3), { values: [-32768, 32767, ...enc.channel(-128, 3).values.slice(2)] }),
      enc.channel(127, 1), enc.channel(0, 0)]],
];
for (const [name, specs] of fieldCases) {
  test(`fields: ${name}`, () => {
    const r = decodePacket(enc.concat(specs.map(enc.block)));
    assert.ok(r.ok);
    assert.equal(r.blocks.length, specs.length);
    specs.forEach((s, i) => checkFields(s, r.blocks[i]));
  });
}

test('input: ArrayBuffer and an unaligned view decode alike', () => {
  const packet = enc.concat([new Uint8Array(3), ch3]);
  const view = packet.subarray(3); // odd byte offset inside its buffer
  const copy = view.slice().buffer;
  assert.deepEqual(decodePacket(view).blocks[0].values, decodePacket(copy).blocks[0].values);
  assert.throws(() => decodePacket('text'), TypeError);
});

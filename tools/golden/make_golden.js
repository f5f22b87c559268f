// Reference outputs from TensorFlow.js itself (pure-JavaScript CPU backend),
// for the tests that run the same graphs through minitf.
//
//   node make_golden.js --models DIR --out DIR [--ops] name...
//
// For each model name, loads DIR/name.json and its shards from disk (no
// network), feeds it fixed seeded inputs and writes
//   OUT/models/name/meta.json      input and output names, dtypes, shapes, files
//   OUT/models/name/in_K.bin       little-endian raw input K
//   OUT/models/name/out_K.bin      raw output K
// With --ops it also writes OUT/ops/cases.json + .bin files: single ops at
// the corners of their attributes.
'use strict';

const fs = require('fs');
const path = require('path');
const tf = require('@tensorflow/tfjs-core');
require('@tensorflow/tfjs-backend-cpu');
const tfconv = require('@tensorflow/tfjs-converter');
const { fileHandler } = require('./model_files');

// mulberry32: small, seedable, identical on every machine.
function rng(seed) {
  let a = seed >>> 0;
  return () => {
    a = (a + 0x6d2b79f5) >>> 0;
    let t = a;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

function seedOf(text) {
  let h = 2166136261;
  for (const c of text) h = Math.imul(h ^ c.charCodeAt(0), 16777619) >>> 0;
  return h;
}

// A picture-like input: smooth waves per channel plus a little noise, in
// [0, 1]. Pure noise would leave argmax/top-k heads on near ties, where
// float rounding rather than the runtime decides the winner.
function pictureValues(shape, seed) {
  const r = rng(seed);
  const n = shape.reduce((a, b) => a * b, 1);
  const out = new Float32Array(n);
  const h = shape.length >= 3 ? shape[shape.length - 3] : 1;
  const w = shape.length >= 2 ? shape[shape.length - 2] : 1;
  const c = shape[shape.length - 1];
  const waves = [];
  for (let k = 0; k < c; ++k) {
    waves.push([r() * 12 + 1, r() * 12 + 1, r() * 6.28, r() * 6.28, r() * 0.3 + 0.1]);
  }
  for (let i = 0; i < n; ++i) {
    const ch = i % c;
    const x = Math.floor(i / c) % w;
    const y = Math.floor(i / (c * w)) % h;
    const [fx, fy, px, py, amp] = waves[ch];
    const v = 0.5 + amp * Math.sin((fx * x) / w + px) * Math.cos((fy * y) / h + py) +
              0.08 * (r() - 0.5);
    out[i] = Math.min(1, Math.max(0, v));
  }
  return out;
}

function writeTensor(dir, file, t) {
  const data = t.dataSync();
  const bytes = Buffer.from(data.buffer, data.byteOffset, data.byteLength);
  fs.writeFileSync(path.join(dir, file), bytes);
  return { dtype: t.dtype, shape: t.shape, file };
}

async function goldenForModel(modelsDir, outDir, name) {
  const model = await tfconv.loadGraphModel(fileHandler(path.join(modelsDir, name + '.json')));
  const dir = path.join(outDir, 'models', name);
  fs.mkdirSync(dir, { recursive: true });
  const feeds = {};
  const inputs = [];
  model.inputs.forEach((info, k) => {
    const shape = info.shape.map((d) => (d == null || d < 0 ? 1 : d));
    const values = pictureValues(shape, seedOf(name + ':' + info.name));
    const t = info.dtype === 'int32'
      ? tf.tensor(Int32Array.from(values, (v) => Math.round(v * 255)), shape, 'int32')
      : tf.tensor(values, shape, 'float32');
    feeds[info.name] = t;
    inputs.push({ name: info.name, ...writeTensor(dir, `in_${k}.bin`, t) });
  });
  const outputNames = model.outputs.map((o) => o.name);
  const started = Date.now();
  let results = model.execute(feeds, outputNames);
  if (!Array.isArray(results)) results = [results];
  const outputs = results.map((t, k) => ({ name: outputNames[k], ...writeTensor(dir, `out_${k}.bin`, t) }));
  fs.writeFileSync(path.join(dir, 'meta.json'),
    JSON.stringify({ model: name, runtime: 'tfjs ' + tf.version_core + ' cpu', inputs, outputs }, null, 1));
  console.log(`golden: ${name}: ${outputs.length} outputs in ${Date.now() - started} ms`);
  tf.dispose([...Object.values(feeds), ...results]);
  model.dispose();
}

// ---------------------------------------------------------------- single ops

// Each case: op, attrs (as the graph would carry them), inputs, and how TF.js
// computes it. Cases are chosen to hit the corners of each attribute.
function opCases() {
  const cases = [];
  let seed = 1;
  const rand = (shape, lo = -1, hi = 1) => {
    const r = rng(seed++);
    const n = shape.reduce((a, b) => a * b, 1);
    return tf.tensor(Float32Array.from({ length: n }, () => lo + (hi - lo) * r()), shape);
  };
  const add = (name, op, attrs, inputs, run) => cases.push({ name, op, attrs, inputs, run });

  for (const [pad, stride, k] of [['SAME', 1, 3], ['SAME', 2, 3], ['SAME', 2, 4], ['VALID', 2, 3],
    ['SAME', 3, 5], ['VALID', 1, 1]]) {
    const x = rand([2, 7, 8, 3]);
    const f = rand([k, k, 3, 4]);
    add(`conv2d_${pad}_s${stride}_k${k}`, 'Conv2D', { strides: [1, stride, stride, 1], padding: pad },
      [x, f], () => tf.conv2d(x, f, stride, pad.toLowerCase()));
    const fd = rand([k, k, 3, 2]);
    add(`depthwise_${pad}_s${stride}_k${k}`, 'DepthwiseConv2dNative',
      { strides: [1, stride, stride, 1], padding: pad }, [x, fd],
      () => tf.depthwiseConv2d(x, fd, stride, pad.toLowerCase()));
  }
  for (const [pad, stride, k, ih, iw] of [['SAME', 2, 3, 9, 8], ['SAME', 2, 2, 8, 8], ['VALID', 2, 3, 9, 7],
    ['SAME', 1, 3, 5, 6], ['VALID', 1, 2, 4, 5], ['SAME', 3, 4, 10, 11]]) {
    const f = rand([k, k, 3, 5]);  // [h, w, in (the result's depth), out]
    const probe = tf.conv2d(tf.zeros([2, ih, iw, 3]), f, stride, pad.toLowerCase());
    const dy = rand(probe.shape);
    const sizes = tf.tensor([2, ih, iw, 3], [4], 'int32');
    add(`conv_transpose_${pad}_s${stride}_k${k}_${ih}x${iw}`, 'Conv2DBackpropInput',
      { strides: [1, stride, stride, 1], padding: pad }, [sizes, f, dy],
      () => tf.conv2dTranspose(dy, f, [2, ih, iw, 3], stride, pad.toLowerCase()));
  }
  for (const [ac, hp, ih, iw, oh, ow] of [[false, false, 4, 5, 7, 9], [true, false, 4, 5, 7, 9],
    [false, true, 4, 5, 7, 9], [false, true, 6, 6, 3, 4], [false, false, 6, 6, 3, 4],
    [true, false, 1, 3, 2, 5]]) {
    const x = rand([1, ih, iw, 2]);
    const size = tf.tensor([oh, ow], [2], 'int32');
    add(`resize_bilinear_ac${+ac}_hp${+hp}_${ih}x${iw}_to_${oh}x${ow}`, 'ResizeBilinear',
      { align_corners: ac, half_pixel_centers: hp }, [x, size],
      () => tf.image.resizeBilinear(x, [oh, ow], ac, hp));
  }
  for (const bs of [2, 3]) {
    const x = rand([2, 3, 2, bs * bs * 2]);
    add(`depth_to_space_b${bs}`, 'DepthToSpace', { block_size: bs }, [x], () => tf.depthToSpace(x, bs));
  }
  for (const k of [1, 3, 7]) {
    // Repeated values check the lower-index-first order of ties.
    const x = tf.tensor([3, 1, 3, 0.5, -2, 3, 1, 7, -1, 0, 2, 2, 2, 5], [2, 7]);
    add(`topk_k${k}`, 'TopKV2', { sorted: true }, [x, tf.scalar(k, 'int32')],
      () => tf.topk(x, k, true));
  }
  for (const [ksize, stride, pad] of [[2, 2, 'VALID'], [3, 2, 'SAME'], [3, 1, 'SAME'], [3, 2, 'VALID']]) {
    const x = rand([1, 7, 6, 3]);
    add(`avg_pool_${pad}_k${ksize}_s${stride}`, 'AvgPool',
      { ksize: [1, ksize, ksize, 1], strides: [1, stride, stride, 1], padding: pad }, [x],
      () => tf.avgPool(x, ksize, stride, pad.toLowerCase()));
  }
  {
    const idx = tf.tensor([[0, 1], [1, 3], [2, 0]], [3, 2], 'int32');
    const vals = tf.tensor([5, -1, 2.5]);
    const shape = tf.tensor([3, 4], [2], 'int32');
    add('sparse_to_dense_2d', 'SparseToDense', { validate_indices: true },
      [idx, shape, vals, tf.scalar(0.25)], () => tf.sparseToDense(idx, vals, [3, 4], tf.scalar(0.25)));
  }
  {
    const a = rand([2, 3, 4]);
    const b = rand([2, 3, 4]);
    const c = rand([2, 3, 4]);
    add('add_n_3', 'AddN', {}, [a, b, c], () => tf.addN([a, b, c]));
  }
  for (const [ac, hp] of [[false, false], [true, false], [false, true]]) {
    const x = rand([1, 5, 7, 2]);
    const size = tf.tensor([8, 3], [2], 'int32');
    add(`resize_nearest_ac${+ac}_hp${+hp}`, 'ResizeNearestNeighbor',
      { align_corners: ac, half_pixel_centers: hp }, [x, size],
      () => tf.image.resizeNearestNeighbor(x, [8, 3], ac, hp));
  }
  for (const [k, stride, pad] of [[3, 2, 'SAME'], [2, 2, 'SAME'], [3, 1, 'VALID']]) {
    const x = rand([1, 7, 6, 3]);
    add(`max_pool_${pad}_k${k}_s${stride}`, 'MaxPool',
      { ksize: [1, k, k, 1], strides: [1, stride, stride, 1], padding: pad }, [x],
      () => tf.maxPool(x, k, stride, pad.toLowerCase()));
  }
  {
    // Integer division and modulo round toward negative infinity.
    const a = tf.tensor([7, -7, 7, -7, 0, 5, -1, 9], [8], 'int32');
    const b = tf.tensor([2, 2, -2, -2, 3, -5, 4, 4], [8], 'int32');
    add('floor_div_int', 'FloorDiv', {}, [a, b], () => tf.floorDiv(a, b));
    add('floor_mod_int', 'FloorMod', {}, [a, b], () => tf.mod(a, b));
    const fa = rand([8], -5, 5);
    const fb = tf.tensor([1.5, -1.5, 2, -2, 0.7, -0.7, 3, -3]);
    // TF.js's floorDiv always returns int32; TensorFlow's keeps floats.
    add('floor_div_float', 'FloorDiv', {}, [fa, fb], () => tf.floor(tf.div(fa, fb)));
    add('floor_mod_float', 'FloorMod', {}, [fa, fb], () => tf.mod(fa, fb));
  }
  {
    // StridedSlice masks: begin/end masks, negative strides, shrink and new axes.
    const x = rand([3, 4, 5]);
    const slices = [
      ['plain', [0, 1, 1], [2, 3, 4], [1, 1, 1], 0, 0, 0, 0, 0],
      ['masks', [1, 0, 2], [0, 3, 0], [1, 1, 1], 0b101, 0b101, 0, 0, 0],
      ['negative_stride', [-1, -1, -1], [0, 0, 0], [-1, -2, -2], 0, 0b111, 0, 0, 0],
      ['shrink', [1, 0, 2], [2, 4, 3], [1, 1, 1], 0, 0b010, 0, 0, 0b101],
      ['new_axis', [0, 0, 0], [2, 0, 3], [1, 1, 1], 0, 0b010, 0, 0b010, 0],
      ['ellipsis', [0, 1], [0, 3], [1, 1], 0, 0, 0b01, 0, 0],
    ];
    for (const [label, b, e, st, bm, em, elm, nam, sam] of slices) {
      const bt = tf.tensor(b, [b.length], 'int32');
      const et = tf.tensor(e, [e.length], 'int32');
      const stt = tf.tensor(st, [st.length], 'int32');
      add(`strided_slice_${label}`, 'StridedSlice',
        { Index: 'DT_INT32', begin_mask: bm, end_mask: em, ellipsis_mask: elm,
          new_axis_mask: nam, shrink_axis_mask: sam },
        [x, bt, et, stt], () => tf.stridedSlice(x, b, e, st, bm, em, elm, nam, sam));
    }
  }
  for (const mode of ['REFLECT', 'SYMMETRIC']) {
    const x = rand([1, 3, 4, 2]);
    const pads = [[0, 0], [2, 1], [1, 3], [0, 0]];
    add(`mirror_pad_${mode.toLowerCase()}`, 'MirrorPad', { mode },
      [x, tf.tensor(pads, [4, 2], 'int32')], () => tf.mirrorPad(x, pads, mode.toLowerCase()));
  }
  {
    // Ties go to the first index.
    const x = tf.tensor([1, 3, 3, 2, 5, 5, 5, 0, -1, -1, -2, -1], [3, 4]);
    add('arg_max_ties', 'ArgMax', { output_type: 'DT_INT32' }, [x, tf.scalar(1, 'int32')],
      () => tf.argMax(x, 1));
  }
  return cases;
}

function goldenForOps(outDir) {
  const dir = path.join(outDir, 'ops');
  fs.mkdirSync(dir, { recursive: true });
  const meta = [];
  for (const c of opCases()) {
    let result = c.run();
    if (!Array.isArray(result)) result = result.values ? [result.values, result.indices] : [result];
    meta.push({
      name: c.name, op: c.op, attrs: c.attrs,
      inputs: c.inputs.map((t, k) => writeTensor(dir, `${c.name}_in${k}.bin`, t)),
      outputs: result.map((t, k) => writeTensor(dir, `${c.name}_out${k}.bin`, t)),
    });
  }
  fs.writeFileSync(path.join(dir, 'cases.json'), JSON.stringify(meta, null, 1));
  console.log(`golden: ${meta.length} op cases`);
}

async function main() {
  const args = process.argv.slice(2);
  let modelsDir = '';
  let outDir = '';
  let ops = false;
  const names = [];
  for (let i = 0; i < args.length; ++i) {
    if (args[i] === '--models') modelsDir = args[++i];
    else if (args[i] === '--out') outDir = args[++i];
    else if (args[i] === '--ops') ops = true;
    else names.push(args[i]);
  }
  if (!outDir) throw new Error('usage: make_golden.js --models DIR --out DIR [--ops] name...');
  await tf.setBackend('cpu');
  if (ops) goldenForOps(outDir);
  let failed = 0;
  for (const name of names) {
    try {
      await goldenForModel(modelsDir, outDir, name);
    } catch (e) {
      failed += 1;
      console.error(`golden: ${name} failed: ${e.message}`);
    }
  }
  if (failed) process.exit(1);
}

main().catch((e) => {
  console.error(e);
  process.exit(1);
});

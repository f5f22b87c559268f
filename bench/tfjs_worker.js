// tfjs_worker: one published TF.js graph model on TF.js's WebAssembly
// backend (XNNPACK, SIMD; one thread, the only mode Node offers), timed on
// request; the peer runtime of the model benchmark.
//
//   node tfjs_worker.js MODEL.json meta.json
//
// Feeds the same raw inputs as minitf_worker (meta.json's in_K.bin files)
// and speaks the same protocol: "run" prints milliseconds, "quit" ends.
// Reading an output back to JavaScript is part of each timed run, as it is
// for a host that uses the result.
'use strict';

const fs = require('fs');
const path = require('path');
const readline = require('readline');
const tf = require('@tensorflow/tfjs-core');
const wasm = require('@tensorflow/tfjs-backend-wasm');
const tfconv = require('@tensorflow/tfjs-converter');
const { fileHandler } = require('../tools/golden/model_files');

function readInput(dir, entry) {
  const raw = fs.readFileSync(path.join(dir, entry.file));
  const bytes = raw.buffer.slice(raw.byteOffset, raw.byteOffset + raw.byteLength);
  const values = entry.dtype === 'int32' ? new Int32Array(bytes) : new Float32Array(bytes);
  return tf.tensor(values, entry.shape, entry.dtype);
}

async function main() {
  const [modelJson, metaPath] = process.argv.slice(2);
  if (!modelJson || !metaPath) {
    console.error('usage: node tfjs_worker.js MODEL.json meta.json');
    process.exit(2);
  }
  wasm.setWasmPaths(path.join(path.dirname(require.resolve('@tensorflow/tfjs-backend-wasm')), '/'));
  await tf.setBackend('wasm');
  await tf.ready();
  const meta = JSON.parse(fs.readFileSync(metaPath, 'utf8'));
  const model = await tfconv.loadGraphModel(fileHandler(modelJson));
  const feeds = {};
  for (const entry of meta.inputs) feeds[entry.name] = readInput(path.dirname(metaPath), entry);
  const outputNames = meta.outputs.map((o) => o.name);
  const runOnce = () => {
    const start = process.hrtime.bigint();
    let results = model.execute(feeds, outputNames);
    if (!Array.isArray(results)) results = [results];
    for (const r of results) r.dataSync();
    const ms = Number(process.hrtime.bigint() - start) / 1e6;
    tf.dispose(results);
    return ms;
  };
  runOnce();  // compiles kernels and sizes the heap
  console.log('ready');
  const lines = readline.createInterface({ input: process.stdin });
  for await (const line of lines) {
    if (line === 'run') console.log(String(runOnce()));
    else if (line === 'quit') break;
    else console.log('error unknown command');
  }
  process.exit(0);
}

main().catch((e) => {
  console.log('refused: ' + String(e && e.message ? e.message : e).split('\n')[0]);
  process.exit(3);
});

// ort_worker: one ONNX model (written by bench/to_onnx.py) in one ONNX Runtime
// CPU session, timed on request; a peer runtime of the model benchmark.
//
//   node ort_worker.js MODEL.onnx meta.json THREADS SPIN
//
// THREADS is ONNX Runtime's intra-op thread count (the calling thread
// included), SPIN 1 or 0 sets session.intra_op.allow_spinning (whether idle
// pool threads busy-wait for work). The session runs sequentially with every
// graph optimisation on. Feeds meta.json's in_K.bin files, like the other
// workers, and speaks their protocol:
//
//   check   one run; prints JSON: the max abs difference of each output
//           against meta.json's out_K.bin reference, and the largest
//   run     one run; prints the wall time in milliseconds
//   quit
//
// Outputs are read back into JavaScript arrays within each timed run, as
// they are for TF.js.
'use strict';

const fs = require('fs');
const path = require('path');
const readline = require('readline');
const ort = require('onnxruntime-node');

function readTyped(file, dtype) {
  const raw = fs.readFileSync(file);
  const bytes = raw.buffer.slice(raw.byteOffset, raw.byteOffset + raw.byteLength);
  if (dtype === 'int32') return new Int32Array(bytes);
  if (dtype === 'uint8') return new Uint8Array(bytes);
  return new Float32Array(bytes);
}

async function main() {
  const [modelPath, metaPath, threadsArg, spinArg] = process.argv.slice(2);
  const threads = Number(threadsArg);
  if (!modelPath || !metaPath || !(threads >= 1) || !(spinArg === '0' || spinArg === '1')) {
    console.error('usage: node ort_worker.js MODEL.onnx meta.json THREADS SPIN(0|1)');
    process.exit(2);
  }
  const session = await ort.InferenceSession.create(modelPath, {
    executionProviders: ['cpu'],
    intraOpNumThreads: threads,
    interOpNumThreads: 1,
    executionMode: 'sequential',
    graphOptimizationLevel: 'all',
    extra: { session: { intra_op: { allow_spinning: spinArg } } },
  });
  const meta = JSON.parse(fs.readFileSync(metaPath, 'utf8'));
  const dir = path.dirname(metaPath);
  const feeds = {};
  for (const e of meta.inputs) {
    feeds[e.name] = new ort.Tensor(e.dtype, readTyped(path.join(dir, e.file), e.dtype), e.shape);
  }
  const names = meta.outputs.map((o) => o.name);
  const runOnce = async () => {
    const start = process.hrtime.bigint();
    const results = await session.run(feeds, names);
    const data = names.map((n) => results[n].data);
    const ms = Number(process.hrtime.bigint() - start) / 1e6;
    return { ms, data, results };
  };
  const check = async () => {
    const { data, results } = await runOnce();
    const report = { outputs: {}, max_abs_diff: 0 };
    meta.outputs.forEach((o, k) => {
      const want = readTyped(path.join(dir, o.file), o.dtype);
      const got = data[k];
      let diff = 0;
      let scale = 0;
      let worst = -1;
      if (want.length !== got.length) {
        diff = Infinity;
      } else {
        for (let i = 0; i < want.length; ++i) {
          const d = Math.abs(Number(got[i]) - want[i]);
          if (d > diff) { diff = d; worst = i; }
          scale = Math.max(scale, Math.abs(want[i]));
        }
      }
      report.outputs[o.name] = {
        shape: results[o.name].dims, want_shape: o.shape,
        max_abs_diff: diff === Infinity ? 'size mismatch' : diff, max_abs_ref: scale,
        worst_index: worst,
      };
      report.max_abs_diff = Math.max(report.max_abs_diff, diff);
    });
    if (report.max_abs_diff === Infinity) report.max_abs_diff = 'size mismatch';
    return report;
  };
  await runOnce(); // first run allocates and plans
  console.log('ready');
  const lines = readline.createInterface({ input: process.stdin });
  for await (const line of lines) {
    if (line === 'run') console.log(String((await runOnce()).ms));
    else if (line === 'check') console.log(JSON.stringify(await check()));
    else if (line === 'quit') break;
    else console.log('error unknown command');
  }
  process.exit(0);
}

main().catch((e) => {
  console.log('refused: ' + String(e && e.message ? e.message : e).split('\n')[0]);
  process.exit(3);
});

#!/usr/bin/env python3
"""Model latency of minitf against its peers, measured side by side.

For each model, one worker process per runtime is started and kept alive:
minitf with 1 and 2 intra-op threads; ONNX Runtime 1.30.0 (CPU) with 1 and 2
threads, the 2-thread session both with its pool threads spinning (its
default) and without; TF.js 4.22.0 on its WebAssembly backend (Node); and
OpenCV's DNN module on 1 thread where it imports the graph. After a warm-up,
the runs are interleaved, one run per runtime per round with the order
rotating every round, so that drift on a shared machine touches every
runtime alike.

The models are the converted TF.js models, then real TensorFlow frozen
graphs (from /work/shared/realgraphs, or $VA_REALGRAPHS) on their reference
inputs; these have no TF.js column.

ONNX Runtime runs each graph as bench/to_onnx.py converts it (cached under
.cache/onnx/). Before timing, its outputs are checked against the reference
outputs on the same input; a model whose difference exceeds 1e-4 of the
output's scale (max |diff| / max(1, max |reference|)) is refused, with the
difference printed, as is a graph holding an op the converter does not map.

Prints the medians, the ratios minitf/ORT per thread count with their
geometric means, minitf's 2-thread/1-thread ratio, each model's FLOPs and
the GFLOP/s minitf achieves against one core's FP32 peak (a oneDNN SGEMM,
bench/fixed_cost_bench), minitf's fixed cost per session run, and the memory
of minitf's session.

    bench/run_models.py --build DIR [--rounds 20] [--models a,b,...]
                        [--real a,b,...|none]
"""
import argparse
import json
import os
import math
import shutil
import statistics
import struct
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CACHE = os.environ.get("VA_CACHE_DIR", os.path.join(ROOT, ".cache"))
# The pinned peer runtimes (bench/package.json), as bench/run.sh installs them.
NPM = os.environ.get("VA_BENCH_NPM", os.path.join(CACHE, "bench-npm"))

# The models the latency targets name, then the other converted graphs that
# OpenCV's DNN module imports (minitf must not be slower than it on any).
MODELS = [
    "movenet-lightning", "movenet-thunder", "blazeface-back", "mobilefacenet", "faceres",
    "centernet", "emotion", "age",
    "blazeface-front", "gender", "antispoof", "liveness", "gear", "selfie", "blazepose-lite",
    "blazepose-full",
]
REALGRAPHS = os.environ.get("VA_REALGRAPHS", "/work/shared/realgraphs")
# name -> frozen graph; inputs and references as the realgraphs README gives.
REAL = [
    ("mobilenet_v1", "mobilenet_v1_0.25_128_frozen"),
    ("keras_mobilenetv2", "keras_mobilenetv2_classifier_frozen"),
    ("face_res10_uint8", "opencv_face_detector_uint8"),
    ("ssd_mobilenet_v1", "ssd_mobilenet_v1_voc_aiy_frozen_inference_graph"),
]
# The interpreter that sees Debian's python3-onnx.
ONNX_PYTHON = os.environ.get("VA_ONNX_PYTHON", "/usr/bin/python3")
ORT_TOLERANCE = 1e-4
CONV_HEAVY = {"movenet-thunder", "faceres", "centernet", "blazeface-back", "mobilefacenet"}


class Worker:
    """A runtime holding one model, answering 'run' with milliseconds."""

    def __init__(self, label, argv, env=None):
        self.label = label
        self.times = []
        self.refused = None
        self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True, env=env)
        first = self.proc.stdout.readline().strip()
        if first != "ready":
            if first:
                self.refused = first
            else:
                lines = self.proc.stderr.read().strip().splitlines()
                code = self.proc.wait()
                self.refused = lines[-1] if lines else "exited with code %s" % code
            self.close()

    def ask(self, command):
        self.proc.stdin.write(command + "\n")
        self.proc.stdin.flush()
        line = self.proc.stdout.readline()
        if not line:
            raise RuntimeError("%s stopped (exit %s)" % (self.label, self.proc.wait()))
        return line.strip()

    def run(self):
        try:
            return float(self.ask("run"))
        except (RuntimeError, ValueError) as e:
            self.refused = str(e)
            self.close()
            return None

    def close(self):
        if self.proc is not None and self.proc.poll() is None:
            try:
                self.proc.stdin.write("quit\n")
                self.proc.stdin.flush()
            except BrokenPipeError:
                pass
            try:
                self.proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.proc.kill()

    @classmethod
    def refusal(cls, label, why):
        """A worker that never started, for a runtime that cannot take the model."""
        w = cls.__new__(cls)
        w.label, w.times, w.refused, w.proc = label, [], why, None
        return w

    @property
    def alive(self):
        return self.refused is None


def real_meta(graph):
    """A meta.json directory (the workers' format) for a real frozen graph:
    its reference input and outputs, written once under .cache/bench-real/."""
    ref_path = os.path.join(REALGRAPHS, "ref", graph + "__messi5.json")
    pb = os.path.join(REALGRAPHS, "graphs", graph + ".pb")
    if not os.path.exists(ref_path) or not os.path.exists(pb):
        return None, None, "missing %s" % ref_path
    out_dir = os.path.join(CACHE, "bench-real", graph)
    meta_path = os.path.join(out_dir, "meta.json")
    if not os.path.exists(meta_path):
        with open(ref_path) as f:
            ref = json.load(f)
        os.makedirs(out_dir, exist_ok=True)
        entry = ref["input"]
        shutil.copyfile(os.path.join(REALGRAPHS, entry["file"]), os.path.join(out_dir, "in_0.bin"))
        meta = {"model": graph, "runtime": "tfjs 4.22 cpu (realgraphs reference)",
                "inputs": [{"name": entry["name"], "dtype": entry["dtype"],
                            "shape": entry["shape"], "file": "in_0.bin"}],
                "outputs": []}
        for k, o in enumerate(ref["outputs"]):
            with open(os.path.join(out_dir, "out_%d.bin" % k), "wb") as f:
                f.write(struct.pack("<%df" % len(o["values"]), *o["values"]))
            meta["outputs"].append({"name": o["name"], "dtype": o["dtype"], "shape": o["shape"],
                                    "file": "out_%d.bin" % k})
        with open(meta_path + ".tmp", "w") as f:
            json.dump(meta, f, indent=1)
        os.replace(meta_path + ".tmp", meta_path)
    return pb, meta_path, None


def onnx_model(name, graph, meta):
    """The converted ONNX file, or None and the converter's refusal."""
    try:
        r = subprocess.run([ONNX_PYTHON, os.path.join(ROOT, "bench", "to_onnx.py"), "--cache",
                            os.path.join(CACHE, "onnx"), name, graph, meta],
                           capture_output=True, text=True, timeout=600)
    except (OSError, subprocess.TimeoutExpired) as e:
        return None, "converter: %s" % e
    out = r.stdout.strip().splitlines()
    if r.returncode == 0 and out and out[-1].endswith(".onnx"):
        return out[-1], None
    if out:
        return None, out[-1]
    err = r.stderr.strip().splitlines()
    return None, "converter failed: %s" % (err[-1] if err else "exit %d" % r.returncode)


def check_ort(worker):
    """Refuses an ONNX Runtime worker whose outputs differ from the reference."""
    try:
        report = json.loads(worker.ask("check"))
    except (RuntimeError, ValueError) as e:
        worker.refused = "check failed: %s" % e
        worker.close()
        return None
    worst, worst_name, raw = 0.0, None, 0.0
    for name, o in report["outputs"].items():
        if not isinstance(o["max_abs_diff"], (int, float)):
            worker.refused = "output %s: %s (shape %s, reference %s)" % (
                name, o["max_abs_diff"], o["shape"], o["want_shape"])
            worker.close()
            return None
        scaled = o["max_abs_diff"] / max(1.0, o["max_abs_ref"])
        if scaled >= worst:
            worst, worst_name, raw = scaled, name, o["max_abs_diff"]
    if worst > ORT_TOLERANCE:
        worker.refused = ("outputs differ from the reference: %s max |diff| %.3g (scaled %.3g > %g)"
                          % (worst_name, raw, worst, ORT_TOLERANCE))
        worker.close()
    return {"max_abs_diff": raw, "scaled": worst, "output": worst_name}


def start_workers(build, name, graph, meta, tfjs_json=None):
    for path in (graph, meta):
        if not os.path.exists(path):
            return None, None, "missing %s (run scripts/fetch_models.sh)" % path
    minitf = os.path.join(build, "bench", "minitf_worker")
    workers = [Worker("minitf-1", [minitf, graph, meta, "1"]),
               Worker("minitf-2", [minitf, graph, meta, "2"])]
    node_env = dict(os.environ, NODE_PATH=os.path.join(NPM, "node_modules"))
    onnx_path, why = onnx_model(name, graph, meta)
    check = None
    ort_labels = (("ort-1", "1", "1"), ("ort-2", "2", "1"), ("ort-2-nospin", "2", "0"))
    for label, threads, spin in ort_labels:
        if onnx_path is None:
            w = Worker.refusal(label, why)
        else:
            w = Worker(label, ["node", os.path.join(ROOT, "bench", "ort_worker.js"), onnx_path,
                               meta, threads, spin], env=node_env)
            if w.alive and check is None:
                check = check_ort(w)
                if not w.alive:
                    why, onnx_path = w.refused, None
        workers.append(w)
    if tfjs_json is not None and os.path.exists(tfjs_json):
        workers.append(Worker("tfjs-wasm", ["node", os.path.join(ROOT, "bench", "tfjs_worker.js"),
                                            tfjs_json, meta], env=node_env))
    opencv = os.path.join(build, "bench", "opencv_worker")
    if os.path.exists(opencv):
        workers.append(Worker("opencv-1", [opencv, graph, meta, "1"]))
    return workers, check, None


def measure(workers, rounds, warmup):
    live = [w for w in workers if w.alive]
    for _ in range(warmup):
        for w in live:
            w.run()
    live = [w for w in live if w.alive]
    for r in range(rounds):
        k = r % len(live) if live else 0
        for w in live[k:] + live[:k]:
            if w.alive:
                t = w.run()
                if t is not None:
                    w.times.append(t)


def input_label(meta):
    """The first input's spatial size and channels."""
    try:
        with open(meta) as f:
            shape = json.load(f)["inputs"][0]["shape"]
        return "x".join(str(d) for d in shape[1:])
    except (OSError, KeyError, IndexError, ValueError):
        return "?"


def fmt(v, pattern="%.2f"):
    return "-" if v is None else pattern % v


def ratio(a, b):
    return (a / b) if a and b else None


def geomean(values):
    values = [v for v in values if v]
    return math.exp(sum(math.log(v) for v in values) / len(values)) if values else None


def fixed_costs(build):
    """minitf's fixed cost per session run (us) and one core's SGEMM GFLOP/s."""
    exe = os.path.join(build, "bench", "fixed_cost_bench")
    if not os.path.exists(exe):
        return None, None, "fixed_cost_bench not built (needs libbenchmark-dev)"
    try:
        r = subprocess.run([exe, "--benchmark_format=json"], capture_output=True, text=True,
                           timeout=300)
        runs = json.loads(r.stdout)["benchmarks"]
    except (OSError, ValueError, KeyError, subprocess.TimeoutExpired) as e:
        return None, None, "fixed_cost_bench: %s" % e
    run_us = peak = None
    for b in runs:
        if b["name"].startswith("SessionRunIdentity"):
            run_us = b["real_time"]
        elif b["name"].startswith("Sgemm"):
            peak = b.get("GFLOP/s")
    return run_us, peak, None


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(ROOT, "build-bench"))
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--warmup", type=int, default=3)
    parser.add_argument("--models", default=",".join(MODELS))
    parser.add_argument("--real", default=",".join(n for n, _ in REAL),
                        help="real frozen graphs to run, or 'none'")
    parser.add_argument("--json", help="also write the raw results here")
    args = parser.parse_args()

    run_us, peak, why = fixed_costs(args.build)
    if why:
        print("note: %s" % why, file=sys.stderr)

    jobs = []
    for name in [m for m in args.models.split(",") if m]:
        tfjs = os.path.join(CACHE, "npm", "node_modules", "@vladmandic", "human-models",
                            "models", name + ".json")
        jobs.append((name, False, os.path.join(CACHE, "models", name + ".pb"),
                     os.path.join(CACHE, "golden", "models", name, "meta.json"), tfjs))
    real = dict(REAL)
    for name in [m for m in args.real.split(",") if m and m != "none"]:
        if name not in real:
            print("%s: skipped: not a known real graph (%s)" % (name, ", ".join(real)),
                  file=sys.stderr)
            continue
        pb, meta, why = real_meta(real[name])
        if why:
            print("%s: skipped: %s" % (name, why), file=sys.stderr)
            continue
        jobs.append((name, True, pb, meta, None))

    rows, raw = [], {}
    for name, is_real, graph, meta, tfjs in jobs:
        workers, check, why = start_workers(args.build, name, graph, meta, tfjs)
        if workers is None:
            print("%s: skipped: %s" % (name, why), file=sys.stderr)
            continue
        print("%s: measuring %d rounds ..." % (name, args.rounds), file=sys.stderr, flush=True)
        measure(workers, args.rounds, args.warmup)
        med = {w.label: (statistics.median(w.times) if w.times else None) for w in workers}
        info = {}
        minitf1 = workers[0]
        if minitf1.alive:
            try:
                info = json.loads(minitf1.ask("info"))
            except (RuntimeError, ValueError) as e:
                print("%s: no FLOP count: %s" % (name, e), file=sys.stderr)
        for w in workers:
            w.close()
        refused = {w.label: w.refused for w in workers if w.refused}
        raw[name] = {"real_graph": is_real, "median_ms": med, "info": info, "refused": refused,
                     "ort_check": check, "times_ms": {w.label: w.times for w in workers}}
        rows.append((name, is_real, meta, med, info, refused, check))

    print()
    print("Latency, median of %d interleaved rounds after %d warm-up runs (ms). minitf/ORT < 1: "
          "minitf faster. ORT 2t spins its pool threads (its default); 'no-spin' turns that off."
          % (args.rounds, args.warmup))
    if run_us is not None:
        print("minitf's fixed cost per session run (one Identity on 1 float): %.2f us" % run_us)
    if peak is not None:
        print("One core's FP32 peak (oneDNN SGEMM 2048^3, 1 thread, over CPU time): %.1f GFLOP/s"
              % peak)
    ratios1, ratios2, ratios2n, scaling = [], [], [], []
    for section, want_real in (("Converted TF.js models", False),
                               ("Real TensorFlow frozen graphs (no TF.js model)", True)):
        section_rows = [r for r in rows if r[1] == want_real]
        if not section_rows:
            continue
        print()
        print("%s:" % section)
        print()
        print("| model | GFLOP | ORT 1t | minitf 1t | minitf/ORT | ORT 2t | minitf 2t "
              "| minitf/ORT | minitf 2t/1t | TF.js wasm | OpenCV 1t | ORT 2t no-spin "
              "| minitf 1t GFLOP/s | % of peak | input |")
        print("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
        for name, is_real, meta, med, info, refused, check in section_rows:
            o1, o2, o2n = med.get("ort-1"), med.get("ort-2"), med.get("ort-2-nospin")
            m1, m2 = med.get("minitf-1"), med.get("minitf-2")
            tfjs, cv1 = med.get("tfjs-wasm"), med.get("opencv-1")
            gflop = info["flops"] / 1e9 if info and "flops" in info else None
            r1, r2, sc = ratio(m1, o1), ratio(m2, o2), ratio(m2, m1)
            ratios1.append(r1), ratios2.append(r2), scaling.append(sc)
            ratios2n.append(ratio(m2, o2n))
            rate = gflop / m1 * 1e3 if gflop and m1 else None
            print("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                name, fmt(gflop, "%.3f"),
                fmt(o1) if o1 else "refused", fmt(m1), fmt(r1, "%.2fx"),
                fmt(o2) if o2 else "refused", fmt(m2), fmt(r2, "%.2fx"), fmt(sc, "%.2fx"),
                fmt(tfjs) if tfjs else ("n/a" if is_real else "refused"),
                fmt(cv1) if cv1 else "refused", fmt(o2n) if o2n else "refused",
                fmt(rate, "%.1f"), fmt(rate / peak * 100 if rate and peak else None, "%.0f%%"),
                input_label(meta)))
    print()
    print("Geometric means over the models both ran: minitf/ORT 1t %s (%d models), 2t %s "
          "(%d models; against ORT 2t without spinning %s); minitf 2t/1t %s (%d models)." % (
              fmt(geomean(ratios1), "%.2fx"), len([r for r in ratios1 if r]),
              fmt(geomean(ratios2), "%.2fx"), len([r for r in ratios2 if r]),
              fmt(geomean(ratios2n), "%.2fx"),
              fmt(geomean(scaling), "%.2fx"), len([r for r in scaling if r])))
    print()
    print("ONNX Runtime's outputs against the reference (max |diff|, and over max(1, max |ref|)):")
    for name, is_real, meta, med, info, refused, check in rows:
        if check:
            print("  %s: %.3g (scaled %.3g, on %s)%s" % (
                name, check["max_abs_diff"], check["scaled"], check["output"],
                "  REFUSED" if check["scaled"] > ORT_TOLERANCE else ""))
    print()
    print("Targets: minitf 1t <= 0.7x TF.js wasm on the first eight models; 2t <= 0.45x on the "
          "conv-heavy ones (%s); minitf <= OpenCV wherever OpenCV imports the graph."
          % ", ".join(sorted(CONV_HEAVY)))
    print()
    print("Memory of a minitf session (1 thread) over the imported graph, after the timed runs, "
          "against the weights plus the two largest activations. 'Peak' is the growth of VmHWM, which "
          "also counts oneDNN's code pages as they are first executed; 'anonymous' is RssAnon, the "
          "session's own heap and mappings (its buffer cache keeps about one run's peak).")
    print()
    print("| model | weights MB | two largest activations MB | peak MB | ratio | anonymous MB "
          "| ratio |")
    print("|---|---|---|---|---|---|---|")
    for name, is_real, meta, med, info, refused, check in rows:
        if not info or not info.get("peak_reset_after_import"):
            continue
        weights = info["weights_bytes"] / 2**20
        acts = sum(info["largest_activation_bytes"]) / 2**20
        peak_mb = (info["rss_peak_kb"] - info["rss_after_import_kb"]) / 1024
        anon = (info["anon_now_kb"] - info["anon_after_import_kb"]) / 1024
        print("| %s | %.1f | %.1f | %.1f | %.2fx | %.1f | %.2fx |" % (
            name, weights, acts, peak_mb, peak_mb / (weights + acts), anon,
            anon / (weights + acts)))
    print()
    for name, is_real, meta, med, info, refused, check in rows:
        by_reason = {}
        for label, why in refused.items():
            if why:
                by_reason.setdefault(why, []).append(label)
        for why, labels in by_reason.items():
            print("note: %s on %s: %s" % (", ".join(labels), name, why[:200]))
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"fixed_cost_us": run_us, "peak_gflops": peak, "models": raw}, f, indent=1)


if __name__ == "__main__":
    main()

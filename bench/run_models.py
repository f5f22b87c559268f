#!/usr/bin/env python3
"""Model latency of minitf against its peers, measured side by side.

For each converted real model, one worker process per runtime is started
and kept alive: minitf with 1 and 2 intra-op threads, TF.js 4.22.0 on its
WebAssembly backend (Node), and OpenCV's DNN module with 1 and 2 threads
where it imports the graph. After a warm-up, the runs are interleaved, one
run per runtime per round with the order rotating every round, so that
drift on a shared machine touches every runtime alike. Prints the medians,
the ratios against TF.js wasm and OpenCV, each model's FLOPs with the
achieved GFLOP/s, and the memory of minitf's session.

    bench/run_models.py --build DIR [--rounds 20] [--models a,b,...]
"""
import argparse
import json
import os
import statistics
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CACHE = os.environ.get("VA_CACHE_DIR", os.path.join(ROOT, ".cache"))

# The models the latency targets name, then the other converted graphs that
# OpenCV's DNN module imports (minitf must not be slower than it on any).
MODELS = [
    "movenet-lightning", "movenet-thunder", "blazeface-back", "mobilefacenet", "faceres",
    "centernet", "emotion", "age",
    "blazeface-front", "gender", "antispoof", "liveness", "gear", "selfie", "blazepose-lite",
    "blazepose-full",
]
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
        if self.proc.poll() is None:
            try:
                self.proc.stdin.write("quit\n")
                self.proc.stdin.flush()
            except BrokenPipeError:
                pass
            try:
                self.proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.proc.kill()

    @property
    def alive(self):
        return self.refused is None


def start_workers(build, name):
    graph = os.path.join(CACHE, "models", name + ".pb")
    meta = os.path.join(CACHE, "golden", "models", name, "meta.json")
    tfjs_json = os.path.join(CACHE, "npm", "node_modules", "@vladmandic", "human-models",
                             "models", name + ".json")
    for path in (graph, meta, tfjs_json):
        if not os.path.exists(path):
            return None, "missing %s (run scripts/fetch_models.sh)" % path
    workers = [Worker("minitf-1", [os.path.join(build, "bench", "minitf_worker"), graph, meta, "1"]),
               Worker("minitf-2", [os.path.join(build, "bench", "minitf_worker"), graph, meta, "2"])]
    node_env = dict(os.environ, NODE_PATH=os.path.join(CACHE, "bench-npm", "node_modules"))
    workers.append(Worker("tfjs-wasm", ["node", os.path.join(ROOT, "bench", "tfjs_worker.js"),
                                        tfjs_json, meta], env=node_env))
    opencv = os.path.join(build, "bench", "opencv_worker")
    if os.path.exists(opencv):
        workers.append(Worker("opencv-1", [opencv, graph, meta, "1"]))
        workers.append(Worker("opencv-2", [opencv, graph, meta, "2"]))
    return workers, None


def measure(workers, rounds, warmup):
    live = [w for w in workers if w.alive]
    for _ in range(warmup):
        for w in live:
            w.run()
    live = [w for w in live if w.alive]
    for r in range(rounds):
        k = r % len(live)
        for w in live[k:] + live[:k]:
            if w.alive:
                t = w.run()
                if t is not None:
                    w.times.append(t)


def input_label(name):
    """The first input's spatial size and channels, from the reference inputs."""
    try:
        with open(os.path.join(CACHE, "golden", "models", name, "meta.json")) as f:
            shape = json.load(f)["inputs"][0]["shape"]
        return "x".join(str(d) for d in shape[1:])
    except (OSError, KeyError, IndexError, ValueError):
        return "?"


def fmt(v, pattern="%.1f"):
    return "-" if v is None else pattern % v


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(ROOT, "build-bench"))
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--warmup", type=int, default=3)
    parser.add_argument("--models", default=",".join(MODELS))
    parser.add_argument("--json", help="also write the raw results here")
    args = parser.parse_args()

    rows, raw = [], {}
    for name in args.models.split(","):
        workers, why = start_workers(args.build, name)
        if workers is None:
            print("%s: skipped: %s" % (name, why), file=sys.stderr)
            continue
        print("%s: measuring %d rounds ..." % (name, args.rounds), file=sys.stderr, flush=True)
        measure(workers, args.rounds, args.warmup)
        med = {w.label: (statistics.median(w.times) if w.times else None) for w in workers}
        info = {}
        minitf1 = workers[0]
        if minitf1.alive:
            info = json.loads(minitf1.ask("info"))
        for w in workers:
            w.close()
        raw[name] = {"median_ms": med, "info": info,
                     "refused": {w.label: w.refused for w in workers if w.refused},
                     "times_ms": {w.label: w.times for w in workers}}
        rows.append((name, med, info, {w.label: w.refused for w in workers}))

    print()
    print("Latency, median of %d interleaved rounds after %d warm-up runs (ms; ratio = minitf / peer)"
          % (args.rounds, args.warmup))
    print()
    print("| model | input | TF.js wasm | minitf 1t | ratio | minitf 2t | ratio | OpenCV 1t | OpenCV 2t "
          "| minitf/OpenCV 1t | 2t | GFLOP | GFLOP/s 1t | 2t |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    for name, med, info, refused in rows:
        tfjs, m1, m2 = med.get("tfjs-wasm"), med.get("minitf-1"), med.get("minitf-2")
        o1, o2 = med.get("opencv-1"), med.get("opencv-2")
        ratio = lambda a, b: (a / b) if a and b else None
        gflop = info.get("flops", 0) / 1e9 if info else None
        print("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
            name, input_label(name), fmt(tfjs), fmt(m1), fmt(ratio(m1, tfjs), "%.2fx"),
            fmt(m2), fmt(ratio(m2, tfjs), "%.2fx"),
            fmt(o1) if o1 else "refused", fmt(o2) if o2 else "refused",
            fmt(ratio(m1, o1), "%.2fx"), fmt(ratio(m2, o2), "%.2fx"), fmt(gflop, "%.2f"),
            fmt(gflop / m1 * 1e3 if gflop and m1 else None),
            fmt(gflop / m2 * 1e3 if gflop and m2 else None)))
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
    for name, med, info, refused in rows:
        if not info or not info.get("peak_reset_after_import"):
            continue
        weights = info["weights_bytes"] / 2**20
        acts = sum(info["largest_activation_bytes"]) / 2**20
        peak = (info["rss_peak_kb"] - info["rss_after_import_kb"]) / 1024
        anon = (info["anon_now_kb"] - info["anon_after_import_kb"]) / 1024
        print("| %s | %.1f | %.1f | %.1f | %.2fx | %.1f | %.2fx |" % (
            name, weights, acts, peak, peak / (weights + acts), anon, anon / (weights + acts)))
    for name, med, info, refused in rows:
        for label, why in refused.items():
            if why:
                print("note: %s on %s: %s" % (label, name, why[:160]))
    if args.json:
        with open(args.json, "w") as f:
            json.dump(raw, f, indent=1)


if __name__ == "__main__":
    main()

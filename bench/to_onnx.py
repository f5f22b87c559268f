#!/usr/bin/python3
"""A frozen TensorFlow GraphDef to ONNX (opset 17), for the ONNX Runtime peer of
the model benchmark.

The whole graph runs in NCHW: an NHWC image input is transposed once at the
entry, convolutions and pools take their weights transposed here, the
per-channel elementwise ops take their constants permuted, and 4-D outputs are
transposed back at the exit. Ops that depend on the memory order (reshapes,
gathers, slices) get their input back in NHWC, so a transpose is inserted
only where the layout really changes.

Ranks and shapes come from a first conversion that keeps TensorFlow's layout,
run through ONNX's shape inference with the model's fixed input shapes.

    to_onnx.py graph.pb meta.json out.onnx     (meta.json: the reference
                                                inputs and outputs, as the
                                                workers read them)
    to_onnx.py --cache DIR NAME graph.pb meta.json
                                               converts once into DIR, keyed by
                                               a hash of the inputs; prints the
                                               .onnx path
    to_onnx.py --ops graph.pb ...               the op set of each graph

Runs with Debian's python3-onnx (/usr/bin/python3). An op it cannot map ends
it with 'unsupported: ...' and exit code 3: the caller leaves that model out.
"""
import hashlib
import json
import os
import subprocess
import sys
import tempfile
from collections import Counter

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OPSET = 17


class Unsupported(Exception):
    pass


def load_proto_modules():
    """The GraphDef messages, compiled from minitf's .proto files."""
    out = tempfile.mkdtemp(prefix="to_onnx_proto_")
    protos = [os.path.join("minitf", "proto", f)
              for f in sorted(os.listdir(os.path.join(ROOT, "minitf", "proto")))
              if f.endswith(".proto")]
    subprocess.run(["protoc", "-I" + ROOT, "--python_out=" + out] + protos, check=True, cwd=ROOT)
    sys.path.insert(0, out)
    from minitf.proto import graph_pb2  # noqa: E402
    return graph_pb2


# TensorFlow DataType enum values to numpy and ONNX.
TF_NP = {1: np.float32, 2: np.float64, 3: np.int32, 4: np.uint8, 6: np.int8, 9: np.int64,
         10: np.bool_, 12: np.uint8}
TF_ONNX = {1: TensorProto.FLOAT, 2: TensorProto.DOUBLE, 3: TensorProto.INT32,
           4: TensorProto.UINT8, 6: TensorProto.INT8, 9: TensorProto.INT64, 10: TensorProto.BOOL}
NHWC_TO_NCHW = [0, 3, 1, 2]
NCHW_TO_NHWC = [0, 2, 3, 1]
# Where NHWC axis a sits in NCHW.
AXIS_TO_NCHW = [0, 2, 3, 1]


def tensor_to_numpy(t):
    dt = TF_NP.get(t.dtype)
    if dt is None:
        raise Unsupported("constant of dtype %d" % t.dtype)
    shape = [d.size for d in t.tensor_shape.dim]
    n = int(np.prod(shape)) if shape else 1
    if t.tensor_content:
        return np.frombuffer(t.tensor_content, dtype=dt).reshape(shape).copy()
    if t.dtype == 1:
        vals = list(t.float_val)
    elif t.dtype == 2:
        vals = list(t.double_val)
    elif t.dtype == 9:
        vals = list(t.int64_val)
    elif t.dtype == 10:
        vals = list(t.bool_val)
    else:
        vals = list(t.int_val)
    if not vals:
        vals = [0]
    arr = np.array(vals, dtype=dt)
    if arr.size < n:  # the last value repeats
        arr = np.concatenate([arr, np.full(n - arr.size, arr[-1], dtype=dt)])
    return arr.reshape(shape)


def split_name(name):
    if name.startswith("^"):
        return None, None
    if ":" in name:
        node, idx = name.rsplit(":", 1)
        return node, int(idx)
    return name, 0


def tf_same_pads(size, k, s, d):
    eff = (k - 1) * d + 1
    out = -(-size // s)
    total = max((out - 1) * s + eff - size, 0)
    return total // 2, total - total // 2


class Converter:
    def __init__(self, graph, meta, shapes=None):
        self.graph = graph
        self.meta = meta
        self.nchw = shapes is not None  # the second pass
        self.shapes = shapes or {}
        self.nodes, self.inits = [], []
        self.consts = {}      # tf tensor -> numpy
        self.values = {}      # tf tensor -> (onnx name, layout 'nhwc' | 'nchw')
        self.cache = {}
        self.uid = 0
        self.by_name = {n.name: n for n in graph.node}

    # --- naming and emitting
    def fresh(self, base):
        self.uid += 1
        return "%s__%d" % (base, self.uid)

    def emit(self, op, inputs, outputs=None, n_out=1, **attrs):
        name = self.fresh(op)
        if outputs is None:
            outputs = [self.fresh(op + "_out") for _ in range(n_out)]
        self.nodes.append(helper.make_node(op, inputs, outputs, name=name, **attrs))
        return outputs if len(outputs) > 1 else outputs[0]

    def init(self, arr, base="c"):
        name = self.fresh(base)
        self.inits.append(numpy_helper.from_array(np.ascontiguousarray(arr), name))
        return name

    def i64(self, vals):
        return self.init(np.array(vals, dtype=np.int64), "i64")

    # --- tensors
    def key(self, name):
        node, idx = split_name(name)
        return "%s:%d" % (node, idx)

    def is_const(self, name):
        return self.key(name) in self.consts

    def const(self, name):
        k = self.key(name)
        if k not in self.consts:
            raise Unsupported("input %s is not constant" % name)
        return self.consts[k]

    def shape(self, name):
        k = self.key(name)
        if k in self.consts:
            return list(self.consts[k].shape)
        if k not in self.shapes and not self.nchw and k in self.values:
            self.infer_so_far()
        return self.shapes.get(k)

    def infer_so_far(self):
        """Shapes of the values converted so far (first pass only)."""
        g = helper.make_graph(self.nodes, "partial", self.graph_inputs(), [], self.inits)
        model = helper.make_model(g, opset_imports=[helper.make_opsetid("", OPSET)])
        model.ir_version = 8
        known = {}
        inferred = onnx.shape_inference.infer_shapes(model)
        for vi in list(inferred.graph.value_info) + list(inferred.graph.input):
            t = vi.type.tensor_type
            if t.HasField("shape") and all(d.HasField("dim_value") for d in t.shape.dim):
                known[vi.name] = [d.dim_value for d in t.shape.dim]
        for k, (onnx_name, layout) in self.values.items():
            if layout != "marker" and onnx_name in known:
                self.shapes[k] = known[onnx_name]

    def graph_inputs(self):
        out = []
        for entry in self.meta["inputs"]:
            dt = {"float32": TensorProto.FLOAT, "int32": TensorProto.INT32}[entry["dtype"]]
            out.append(helper.make_tensor_value_info(entry["name"], dt, entry["shape"]))
        return out

    def rank(self, name):
        s = self.shape(name)
        return None if s is None else len(s)

    def layout(self, name):
        k = self.key(name)
        return "const" if k in self.consts else self.values[k][1]

    def plain(self, name):
        """The tensor in TensorFlow's own layout."""
        k = self.key(name)
        if k in self.consts:
            c = ("plain", k)
            if c not in self.cache:
                self.cache[c] = self.init(self.consts[k], "w")
            return self.cache[c]
        onnx_name, layout = self.values[k]
        if layout == "nhwc":
            return onnx_name
        c = ("tonhwc", k)
        if c not in self.cache:
            self.cache[c] = self.emit("Transpose", [onnx_name], perm=NCHW_TO_NHWC)
        return self.cache[c]

    def channels_first(self, name):
        """A rank-4 tensor in NCHW."""
        k = self.key(name)
        if k in self.consts:
            c = ("nchw", k)
            if c not in self.cache:
                self.cache[c] = self.init(self.consts[k].transpose(NHWC_TO_NCHW), "w")
            return self.cache[c]
        onnx_name, layout = self.values[k]
        if layout == "nchw":
            return onnx_name
        c = ("tonchw", k)
        if c not in self.cache:
            self.cache[c] = self.emit("Transpose", [onnx_name], perm=NHWC_TO_NCHW)
        return self.cache[c]

    def set(self, node, out, layout="nhwc", idx=0):
        self.values["%s:%d" % (node.name, idx)] = (out, layout)

    # --- conversion
    def run(self):
        order = self.topo_order()
        for node in order:
            self.convert(node)
        graph_outputs = []
        for entry in self.meta["outputs"]:
            k = self.key(entry["name"])
            if k in self.consts:
                src = self.init(self.consts[k])
            else:
                src = self.plain(entry["name"])
            self.nodes.append(helper.make_node("Identity", [src], [entry["name"]],
                                               name=self.fresh("out")))
            dt = {"float32": TensorProto.FLOAT, "int32": TensorProto.INT32}[entry["dtype"]]
            graph_outputs.append(helper.make_tensor_value_info(entry["name"], dt, entry["shape"]))
        graph_inputs = self.graph_inputs()
        g = helper.make_graph(self.nodes, "converted", graph_inputs, graph_outputs, self.inits)
        model = helper.make_model(g, opset_imports=[helper.make_opsetid("", OPSET)],
                                  producer_name="minitf-bench-to_onnx")
        model.ir_version = 8
        return model

    def topo_order(self):
        """The nodes the outputs need, inputs first."""
        need = [split_name(o["name"])[0] for o in self.meta["outputs"]]
        seen, order = set(), []
        stack = [(n, False) for n in need]
        while stack:
            name, done = stack.pop()
            if done:
                order.append(self.by_name[name])
                continue
            if name in seen:
                continue
            if name not in self.by_name:
                raise Unsupported("graph has no node %s" % name)
            seen.add(name)
            stack.append((name, True))
            for i in self.by_name[name].input:
                p, _ = split_name(i)
                if p is not None and p not in seen:
                    stack.append((p, False))
        return order

    def convert(self, node):
        op = node.op
        ins = [i for i in node.input if not i.startswith("^")]
        if op == "Const":
            self.consts["%s:0" % node.name] = tensor_to_numpy(node.attr["value"].tensor)
            return
        if op == "Placeholder":
            entry = [e for e in self.meta["inputs"] if split_name(e["name"])[0] == node.name]
            if not entry:
                raise Unsupported("placeholder %s is not fed" % node.name)
            if self.nchw and len(entry[0]["shape"]) == 4:
                self.set(node, self.emit("Transpose", [node.name], perm=NHWC_TO_NCHW), "nchw")
            else:
                self.set(node, node.name)
            return
        if ins and all(self.is_const(i) for i in ins) and op in FOLD:
            outs = FOLD[op](self, node, [self.const(i) for i in ins])
            for idx, v in enumerate(outs):
                self.consts["%s:%d" % (node.name, idx)] = np.asarray(v)
            return
        handler = HANDLERS.get(op)
        if handler is None:
            raise Unsupported("op %s (node %s)" % (op, node.name))
        handler(self, node, ins)

    def attr(self, node, key, default=None):
        if key not in node.attr:
            return default
        a = node.attr[key]
        kind = a.WhichOneof("value")
        if kind == "list":
            if a.list.i:
                return list(a.list.i)
            if a.list.s:
                return [s.decode() for s in a.list.s]
            return []
        if kind == "s":
            return a.s.decode()
        return getattr(a, kind)


# ---------------------------------------------------------------- folding
def fold_dequantize(cv, node, args):
    q, lo, hi = args
    mode = cv.attr(node, "mode", "MIN_COMBINED")
    dt = TF_NP[cv.attr(node, "T")]
    info = np.iinfo(dt)
    lo, hi = float(lo.reshape(-1)[0]), float(hi.reshape(-1)[0])
    if mode == "MIN_FIRST":
        steps = float(1 << (8 * np.dtype(dt).itemsize))
        scale = (hi - lo) * (steps / (steps - 1.0)) / steps
        return [((q.astype(np.float64) - info.min) * scale + lo).astype(np.float32)]
    if mode == "MIN_COMBINED":
        half = (info.max - info.min + 1) / 2.0 if info.min < 0 else 0.0
        span = (hi - lo) / (info.max - info.min)
        return [(lo + (q.astype(np.float64) + half) * span).astype(np.float32)]
    raise Unsupported("Dequantize mode %s" % mode)


def fold_strided_slice(cv, node, args):
    x, b, e, s = args
    sl = strided_slice_spec(cv, node, list(x.shape), b, e, s)
    out = x[tuple(slice(bb, ee, ss) for bb, ee, ss in zip(*sl[:3]))]
    return [out.reshape([d for i, d in enumerate(out.shape) if i not in sl[3]])]


FOLD = {
    "Identity": lambda cv, n, a: [a[0]],
    "Dequantize": fold_dequantize,
    "Cast": lambda cv, n, a: [a[0].astype(TF_NP[cv.attr(n, "DstT")])],
    "Mul": lambda cv, n, a: [a[0] * a[1]],
    "Add": lambda cv, n, a: [a[0] + a[1]],
    "AddV2": lambda cv, n, a: [a[0] + a[1]],
    "Sub": lambda cv, n, a: [a[0] - a[1]],
    "RealDiv": lambda cv, n, a: [(a[0] / a[1]).astype(a[0].dtype)],
    "Rsqrt": lambda cv, n, a: [(1.0 / np.sqrt(a[0])).astype(a[0].dtype)],
    "Sqrt": lambda cv, n, a: [np.sqrt(a[0]).astype(a[0].dtype)],
    "Reshape": lambda cv, n, a: [a[0].reshape([int(v) for v in a[1].reshape(-1)])],
    "ExpandDims": lambda cv, n, a: [np.expand_dims(a[0], int(a[1].reshape(-1)[0]))],
    "Pack": lambda cv, n, a: [np.stack(a, axis=cv.attr(n, "axis", 0))],
    "ConcatV2": lambda cv, n, a: [np.concatenate(a[:-1], axis=int(a[-1]))],
    "StridedSlice": fold_strided_slice,
}


# ---------------------------------------------------------------- op handlers
def conv_pads(cv, node, x, kh, kw, strides, dil):
    padding = cv.attr(node, "padding", "VALID")
    if padding == "VALID":
        return [0, 0, 0, 0]
    if padding == "EXPLICIT":
        e = cv.attr(node, "explicit_paddings")
        return [e[2], e[4], e[3], e[5]]
    shape = cv.shape(x)
    if shape is None:
        return None
    t, b = tf_same_pads(shape[1], kh, strides[0], dil[0])
    l, r = tf_same_pads(shape[2], kw, strides[1], dil[1])
    return [t, l, b, r]


def check_nhwc(cv, node):
    if cv.attr(node, "data_format", "NHWC") != "NHWC":
        raise Unsupported("%s in %s" % (node.op, cv.attr(node, "data_format")))


def spatial(cv, node, onnx_op, x, w, bias=None, pads=None, strides=None, dil=None, **attrs):
    """A convolution-like op on x (TF name) with weights already in ONNX's layout."""
    if cv.nchw:
        inp = cv.channels_first(x)
    else:
        inp = cv.emit("Transpose", [cv.plain(x)], perm=NHWC_TO_NCHW)
    args = [inp] + ([w] if w else []) + ([bias] if bias else [])
    if pads is None:
        attrs["auto_pad"] = "SAME_UPPER"
    else:
        attrs["pads"] = pads
    if strides:
        attrs["strides"] = strides
    if dil:
        attrs["dilations"] = dil
    out = cv.emit(onnx_op, args, **attrs)
    if cv.nchw:
        cv.set(node, out, "nchw")
    else:
        cv.set(node, cv.emit("Transpose", [out], perm=NCHW_TO_NHWC))


def h_conv2d(cv, node, ins):
    check_nhwc(cv, node)
    f = cv.const(ins[1])  # HWIO
    kh, kw, cin, cout = f.shape
    strides = cv.attr(node, "strides", [1, 1, 1, 1])[1:3]
    dil = (cv.attr(node, "dilations") or [1, 1, 1, 1])[1:3]
    x = ins[0]
    pads = conv_pads(cv, node, x, kh, kw, strides, dil)
    group = 1
    xs = cv.shape(x)
    if xs is not None and xs[3] != cin:
        group = xs[3] // cin
    w = cv.init(f.transpose(3, 2, 0, 1), "conv_w")
    spatial(cv, node, "Conv", x, w, pads=pads, strides=strides, dil=dil, group=group)


def h_depthwise(cv, node, ins):
    check_nhwc(cv, node)
    f = cv.const(ins[1])  # H W C M
    kh, kw, c, m = f.shape
    strides = cv.attr(node, "strides", [1, 1, 1, 1])[1:3]
    dil = (cv.attr(node, "dilations") or [1, 1, 1, 1])[1:3]
    pads = conv_pads(cv, node, ins[0], kh, kw, strides, dil)
    w = cv.init(f.transpose(2, 3, 0, 1).reshape(c * m, 1, kh, kw), "dw_w")
    spatial(cv, node, "Conv", ins[0], w, pads=pads, strides=strides, dil=dil, group=c)


def h_conv_backprop_input(cv, node, ins):
    check_nhwc(cv, node)
    sizes = [int(v) for v in cv.const(ins[0])]
    f = cv.const(ins[1])  # H W out in
    kh, kw, cout, cin = f.shape
    strides = cv.attr(node, "strides", [1, 1, 1, 1])[1:3]
    dil = (cv.attr(node, "dilations") or [1, 1, 1, 1])[1:3]
    if cv.attr(node, "padding") == "SAME":
        pt, pb = tf_same_pads(sizes[1], kh, strides[0], dil[0])
        pl, pr = tf_same_pads(sizes[2], kw, strides[1], dil[1])
    elif cv.attr(node, "padding") == "VALID":
        pt = pb = pl = pr = 0
    else:
        raise Unsupported("Conv2DBackpropInput padding %s" % cv.attr(node, "padding"))
    xs = cv.shape(ins[2])
    if xs is None:
        raise Unsupported("unknown input shape of %s" % node.name)
    outp = []
    for axis, (k, s, d, p0, p1) in enumerate(((kh, strides[0], dil[0], pt, pb),
                                               (kw, strides[1], dil[1], pl, pr))):
        full = s * (xs[1 + axis] - 1) + (k - 1) * d + 1 - p0 - p1
        outp.append(sizes[1 + axis] - full)
    if min(outp) < 0:
        raise Unsupported("Conv2DBackpropInput output size")
    w = cv.init(f.transpose(3, 2, 0, 1), "deconv_w")
    spatial(cv, node, "ConvTranspose", ins[2], w, pads=[pt, pl, pb, pr], strides=strides,
            dil=dil, output_padding=outp)


def h_pool(cv, node, ins):
    check_nhwc(cv, node)
    k = cv.attr(node, "ksize")[1:3]
    strides = cv.attr(node, "strides")[1:3]
    pads = conv_pads(cv, node, ins[0], k[0], k[1], strides, [1, 1])
    onnx_op = "MaxPool" if node.op == "MaxPool" else "AveragePool"
    spatial(cv, node, onnx_op, ins[0], None, pads=pads, strides=strides, kernel_shape=k)


def h_fused_bn(cv, node, ins):
    check_nhwc(cv, node)
    if cv.attr(node, "is_training", False):
        raise Unsupported("FusedBatchNorm in training mode")
    scale, offset, mean, var = [cv.const(i).astype(np.float32) for i in ins[1:5]]
    eps = cv.attr(node, "epsilon", 1e-3)
    mul = scale / np.sqrt(var + eps)
    add = offset - mean * mul
    channelwise(cv, node, ins[0], mul, add)


def channelwise(cv, node, x, mul, add):
    if cv.nchw and cv.rank(x) == 4:
        out = cv.emit("Mul", [cv.channels_first(x), cv.init(mul.reshape(-1, 1, 1))])
        cv.set(node, cv.emit("Add", [out, cv.init(add.reshape(-1, 1, 1))]), "nchw")
    else:
        out = cv.emit("Mul", [cv.plain(x), cv.init(mul)])
        cv.set(node, cv.emit("Add", [out, cv.init(add)]))


def h_bias_add(cv, node, ins):
    check_nhwc(cv, node)
    b = cv.const(ins[1])
    if cv.nchw and cv.rank(ins[0]) == 4 and cv.layout(ins[0]) == "nchw":
        cv.set(node, cv.emit("Add", [cv.channels_first(ins[0]), cv.init(b.reshape(-1, 1, 1))]),
               "nchw")
    else:
        cv.set(node, cv.emit("Add", [cv.plain(ins[0]), cv.init(b)]))


def const_to_nchw(arr):
    """A constant broadcast against a rank-4 NHWC tensor, made to broadcast in NCHW."""
    if arr.ndim > 4:
        return None
    a = arr.reshape([1] * (4 - arr.ndim) + list(arr.shape))
    return a.transpose(NHWC_TO_NCHW)


def elementwise(cv, node, ins, onnx_op, post=None, **attrs):
    """An elementwise op, in NCHW when a rank-4 input already is and every other
    input is a constant, a rank-4 tensor, or a single value."""
    use_nchw = False
    if cv.nchw and any(not cv.is_const(i) and cv.layout(i) == "nchw" for i in ins):
        use_nchw = True
        for i in ins:
            r, s = cv.rank(i), cv.shape(i)
            if cv.is_const(i):
                if cv.const(i).ndim > 4:
                    use_nchw = False
            elif r != 4 and (s is None or int(np.prod(s)) != 1):
                use_nchw = False
    args = []
    for i in ins:
        if not use_nchw:
            args.append(cv.plain(i))
        elif cv.is_const(i):
            c = cv.const(i)
            args.append(cv.init(const_to_nchw(c)) if c.ndim > 0 else cv.plain(i))
        elif cv.rank(i) == 4:
            args.append(cv.channels_first(i))
        else:
            args.append(cv.plain(i))
    if callable(onnx_op):
        out = onnx_op(cv, args)
    else:
        out = cv.emit(onnx_op, args, **attrs)
    cv.set(node, out, "nchw" if use_nchw else "nhwc")


def unary(onnx_op, **attrs):
    return lambda cv, node, ins: elementwise(cv, node, ins[:1], onnx_op, **attrs)


def binary(onnx_op, **attrs):
    return lambda cv, node, ins: elementwise(cv, node, ins[:2], onnx_op, **attrs)


def h_relu6(cv, node, ins):
    lo = cv.init(np.array(0, np.float32))
    hi = cv.init(np.array(6, np.float32))
    elementwise(cv, node, ins[:1], lambda cv, a: cv.emit("Clip", [a[0], lo, hi]))


def h_rsqrt(cv, node, ins):
    elementwise(cv, node, ins[:1], lambda cv, a: cv.emit("Reciprocal", [cv.emit("Sqrt", a)]))


def h_square(cv, node, ins):
    elementwise(cv, node, ins[:1], lambda cv, a: cv.emit("Mul", [a[0], a[0]]))


def h_sqdiff(cv, node, ins):
    def f(cv, a):
        d = cv.emit("Sub", a)
        return cv.emit("Mul", [d, d])
    elementwise(cv, node, ins[:2], f)


def h_floordiv(cv, node, ins):
    integer = cv.attr(node, "T", 1) in (3, 9)

    def f(cv, a):
        if integer:
            # Division of integers truncates toward zero; floor it.
            q = cv.emit("Div", a)
            m = cv.emit("Mod", a, fmod=0)
            neg = cv.emit("Not", [cv.emit("Equal", [m, cv.emit("Sub", [m, m])])])
            return cv.emit("Sub", [q, cv.emit("Cast", [cv.emit("And", [neg, cv.emit(
                "Less", [cv.emit("Mul", [a[0], a[1]]), cv.emit("Sub", [m, m])])])],
                to=TF_ONNX[cv.attr(node, "T")])])
        return cv.emit("Floor", [cv.emit("Div", a)])
    elementwise(cv, node, ins[:2], f)


def h_floormod(cv, node, ins):
    integer = cv.attr(node, "T", 1) in (3, 9)

    def f(cv, a):
        if integer:
            return cv.emit("Mod", a, fmod=0)
        q = cv.emit("Floor", [cv.emit("Div", a)])
        return cv.emit("Sub", [a[0], cv.emit("Mul", [q, a[1]])])
    elementwise(cv, node, ins[:2], f)


def h_cast(cv, node, ins):
    to = TF_ONNX.get(cv.attr(node, "DstT"))
    if to is None:
        raise Unsupported("Cast to dtype %s" % cv.attr(node, "DstT"))
    elementwise(cv, node, ins[:1], "Cast", to=to)


def h_addn(cv, node, ins):
    elementwise(cv, node, ins, "Sum")


def h_identity(cv, node, ins):
    cv.values["%s:0" % node.name] = cv.values[cv.key(ins[0])]


def h_softmax(cv, node, ins):
    if cv.nchw and cv.rank(ins[0]) == 4 and cv.layout(ins[0]) == "nchw":
        cv.set(node, cv.emit("Softmax", [cv.channels_first(ins[0])], axis=1), "nchw")
    else:
        cv.set(node, cv.emit("Softmax", [cv.plain(ins[0])], axis=-1))


def h_reduce(cv, node, ins):
    axes = [int(a) for a in np.array(cv.const(ins[1])).reshape(-1)]
    r = cv.rank(ins[0])
    if r is None:
        raise Unsupported("unknown rank at %s" % node.name)
    axes = sorted(a % r for a in axes)
    keep = bool(cv.attr(node, "keep_dims", False))
    onnx_op = {"Mean": "ReduceMean", "Sum": "ReduceSum", "Max": "ReduceMax"}[node.op]
    nchw = cv.nchw and r == 4 and cv.layout(ins[0]) == "nchw" and (
        keep or set(axes) >= {1, 2})
    if nchw:
        x = cv.channels_first(ins[0])
        axes = sorted(AXIS_TO_NCHW[a] for a in axes)
    else:
        x = cv.plain(ins[0])
    if onnx_op == "ReduceSum":
        out = cv.emit(onnx_op, [x, cv.i64(axes)], keepdims=int(keep))
    else:
        out = cv.emit(onnx_op, [x], axes=axes, keepdims=int(keep))
    cv.set(node, out, "nchw" if nchw and keep else "nhwc")


def h_resize(cv, node, ins):
    size = [int(v) for v in cv.const(ins[1])]
    xs = cv.shape(ins[0])
    if xs is None:
        raise Unsupported("unknown shape at %s" % node.name)
    if cv.attr(node, "align_corners", False):
        mode = "align_corners"
    elif cv.attr(node, "half_pixel_centers", False):
        mode = "half_pixel"
    else:
        mode = "asymmetric"
    sizes = cv.i64([xs[0], xs[3], size[0], size[1]])
    inp = cv.channels_first(ins[0]) if cv.nchw else cv.emit("Transpose", [cv.plain(ins[0])],
                                                              perm=NHWC_TO_NCHW)
    out = cv.emit("Resize", [inp, "", "", sizes], mode="linear",
                  coordinate_transformation_mode=mode)
    if cv.nchw:
        cv.set(node, out, "nchw")
    else:
        cv.set(node, cv.emit("Transpose", [out], perm=NCHW_TO_NHWC))


def h_pad(cv, node, ins):
    p = np.array(cv.const(ins[1])).astype(np.int64)
    value = ins[2] if len(ins) > 2 else None
    if cv.nchw and p.shape[0] == 4 and cv.layout(ins[0]) == "nchw":
        p = p[NHWC_TO_NCHW]
        x, layout = cv.channels_first(ins[0]), "nchw"
    else:
        x, layout = cv.plain(ins[0]), "nhwc"
    args = [x, cv.init(np.concatenate([p[:, 0], p[:, 1]]).astype(np.int64))]
    if value is not None:
        args.append(cv.plain(value))
    cv.set(node, cv.emit("Pad", args, mode="constant"), layout)


def h_reshape(cv, node, ins):
    shape = cv.const(ins[1]).astype(np.int64).reshape(-1)
    cv.set(node, cv.emit("Reshape", [cv.plain(ins[0]), cv.init(shape)]))


def h_squeeze(cv, node, ins):
    axes = cv.attr(node, "squeeze_dims") or []
    r = cv.rank(ins[0])
    if not axes:
        s = cv.shape(ins[0])
        if s is None:
            raise Unsupported("unknown shape at %s" % node.name)
        axes = [i for i, d in enumerate(s) if d == 1]
    axes = [a % r for a in axes] if r else axes
    cv.set(node, cv.emit("Squeeze", [cv.plain(ins[0]), cv.i64(axes)]))


def h_expand_dims(cv, node, ins):
    axis = int(np.array(cv.const(ins[1])).reshape(-1)[0])
    r = cv.rank(ins[0])
    if axis < 0:
        axis += (r if r is not None else 0) + 1
    cv.set(node, cv.emit("Unsqueeze", [cv.plain(ins[0]), cv.i64([axis])]))


def h_concat(cv, node, ins):
    axis = int(cv.const(ins[-1]))
    parts = ins[:-1]
    r = cv.rank(parts[0])
    if axis < 0:
        axis += r
    if cv.nchw and r == 4 and all(cv.is_const(p) or cv.layout(p) == "nchw" for p in parts):
        cv.set(node, cv.emit("Concat", [cv.channels_first(p) for p in parts],
                             axis=AXIS_TO_NCHW[axis]), "nchw")
    else:
        cv.set(node, cv.emit("Concat", [cv.plain(p) for p in parts], axis=axis))


def h_pack(cv, node, ins):
    axis = cv.attr(node, "axis", 0)
    if axis < 0:
        axis += cv.rank(ins[0]) + 1
    parts = [cv.emit("Unsqueeze", [cv.plain(i), cv.i64([axis])]) for i in ins]
    cv.set(node, cv.emit("Concat", parts, axis=axis))


def h_unpack(cv, node, ins):
    num = cv.attr(node, "num")
    axis = cv.attr(node, "axis", 0)
    if axis < 0:
        axis += cv.rank(ins[0])
    x = cv.plain(ins[0])
    parts = cv.emit("Split", [x], n_out=num, axis=axis) if num > 1 else [x]
    for idx, p in enumerate(parts):
        cv.set(node, cv.emit("Squeeze", [p, cv.i64([axis])]), idx=idx)


def h_argmax(cv, node, ins):
    axis = int(np.array(cv.const(ins[1])).reshape(-1)[0])
    out = cv.emit("ArgMax", [cv.plain(ins[0])], axis=axis, keepdims=0)
    to = TF_ONNX[cv.attr(node, "output_type", 9)]
    if to != TensorProto.INT64:
        out = cv.emit("Cast", [out], to=to)
    cv.set(node, out)


def h_gather_nd(cv, node, ins):
    idx = cv.emit("Cast", [cv.plain(ins[1])], to=TensorProto.INT64)
    cv.set(node, cv.emit("GatherND", [cv.plain(ins[0]), idx]))


def h_gather_v2(cv, node, ins):
    axis = int(np.array(cv.const(ins[2])).reshape(-1)[0])
    if cv.attr(node, "batch_dims", 0):
        raise Unsupported("GatherV2 with batch_dims")
    idx = cv.emit("Cast", [cv.plain(ins[1])], to=TensorProto.INT64)
    cv.set(node, cv.emit("Gather", [cv.plain(ins[0]), idx], axis=axis))


def h_topk(cv, node, ins):
    k = int(np.array(cv.const(ins[1])).reshape(-1)[0])
    vals, idx = cv.emit("TopK", [cv.plain(ins[0]), cv.i64([k])], n_out=2, axis=-1, largest=1,
                        sorted=1)
    cv.set(node, vals, idx=0)
    cv.set(node, cv.emit("Cast", [idx], to=TensorProto.INT32), idx=1)


def h_matmul(cv, node, ins):
    a, b = cv.plain(ins[0]), None
    if cv.attr(node, "transpose_a", False):
        a = cv.emit("Transpose", [a], perm=[1, 0])
    if cv.is_const(ins[1]):
        w = cv.const(ins[1])
        b = cv.init(w.T if cv.attr(node, "transpose_b", False) else w, "fc_w")
    else:
        b = cv.plain(ins[1])
        if cv.attr(node, "transpose_b", False):
            b = cv.emit("Transpose", [b], perm=[1, 0])
    cv.set(node, cv.emit("MatMul", [a, b]))


def strided_slice_spec(cv, node, shape, b, e, s):
    for m in ("ellipsis_mask", "new_axis_mask"):
        if cv.attr(node, m, 0):
            raise Unsupported("StridedSlice with %s" % m)
    bm, em, sm = (cv.attr(node, m, 0) for m in ("begin_mask", "end_mask", "shrink_axis_mask"))
    b, e, s = [[int(v) for v in np.array(x).reshape(-1)] for x in (b, e, s)]
    starts, ends, steps, shrink = [], [], [], []
    for i in range(len(b)):
        st = s[i]
        big = 2 ** 62
        if sm & (1 << i):
            start = b[i]
            end = start + 1 if start != -1 else big
            starts.append(start), ends.append(end), steps.append(1)
            shrink.append(i)
            continue
        starts.append((0 if st > 0 else -1) if bm & (1 << i) else b[i])
        ends.append((big if st > 0 else -big) if em & (1 << i) else e[i])
        steps.append(st)
    return starts, ends, steps, shrink


def h_strided_slice(cv, node, ins):
    shape = cv.shape(ins[0])
    starts, ends, steps, shrink = strided_slice_spec(cv, node, shape,
                                                     *[cv.const(i) for i in ins[1:4]])
    axes = list(range(len(starts)))
    out = cv.emit("Slice", [cv.plain(ins[0]), cv.i64(starts), cv.i64(ends), cv.i64(axes),
                            cv.i64(steps)])
    if shrink:
        out = cv.emit("Squeeze", [out, cv.i64(shrink)])
    cv.set(node, out)


def h_space_to_batch(cv, node, ins):
    """Only as the head of a dilated convolution: SpaceToBatchND -> Conv2D or
    DepthwiseConv2dNative (VALID) -> BatchToSpaceND, which becomes one dilated
    convolution; the two ends are resolved when the tail is reached."""
    cv.values["%s:0" % node.name] = ("__space_to_batch__", "marker")
    cv.stb = getattr(cv, "stb", {})
    cv.stb[node.name] = ins


def h_batch_to_space(cv, node, ins):
    conv = cv.by_name[split_name(ins[0])[0]]
    stb_name = split_name(conv.input[0])[0]
    stb = getattr(cv, "stb", {}).get(stb_name)
    if conv.op not in ("Conv2D", "DepthwiseConv2dNative") or stb is None or \
            conv.attr["padding"].s != b"VALID":
        raise Unsupported("BatchToSpaceND outside a dilated convolution (%s)" % node.name)
    block = [int(v) for v in cv.const(stb[1])]
    pads = cv.const(stb[2]).astype(np.int64)
    crops = cv.const(ins[2]).astype(np.int64)
    if list(block) != [int(v) for v in cv.const(ins[1])] or crops[:, 0].any():
        raise Unsupported("BatchToSpaceND crops at the start (%s)" % node.name)
    end = pads[:, 1] - crops[:, 1]
    if (end < 0).any():
        raise Unsupported("BatchToSpaceND crops beyond the padding (%s)" % node.name)
    f = cv.const(conv.input[1])
    x = stb[0]
    onnx_pads = [int(pads[0, 0]), int(pads[1, 0]), int(end[0]), int(end[1])]
    strides = [1, 1]
    if conv.op == "Conv2D":
        w = cv.init(f.transpose(3, 2, 0, 1), "conv_w")
        spatial(cv, node, "Conv", x, w, pads=onnx_pads, strides=strides, dil=block)
    else:
        kh, kw, c, m = f.shape
        w = cv.init(f.transpose(2, 3, 0, 1).reshape(c * m, 1, kh, kw), "dw_w")
        spatial(cv, node, "Conv", x, w, pads=onnx_pads, strides=strides, dil=block, group=c)


def h_conv_any(cv, node, ins):
    # The body of a dilated convolution is converted with its tail.
    if cv.values.get(cv.key(ins[0]), (None, None))[1] == "marker":
        cv.values["%s:0" % node.name] = ("__dilated_body__", "marker")
        return
    (h_conv2d if node.op == "Conv2D" else h_depthwise)(cv, node, ins)


HANDLERS = {
    "Identity": h_identity,
    "Conv2D": h_conv_any,
    "DepthwiseConv2dNative": h_conv_any,
    "Conv2DBackpropInput": h_conv_backprop_input,
    "MaxPool": h_pool,
    "AvgPool": h_pool,
    "FusedBatchNorm": h_fused_bn,
    "FusedBatchNormV3": h_fused_bn,
    "BiasAdd": h_bias_add,
    "Add": binary("Add"),
    "AddV2": binary("Add"),
    "Sub": binary("Sub"),
    "Mul": binary("Mul"),
    "RealDiv": binary("Div"),
    "Maximum": binary("Max"),
    "Minimum": binary("Min"),
    "Equal": binary("Equal"),
    "SquaredDifference": h_sqdiff,
    "FloorDiv": h_floordiv,
    "FloorMod": h_floormod,
    "AddN": h_addn,
    "Relu": unary("Relu"),
    "Relu6": h_relu6,
    "Sigmoid": unary("Sigmoid"),
    "Tanh": unary("Tanh"),
    "Abs": unary("Abs"),
    "Sqrt": unary("Sqrt"),
    "Rsqrt": h_rsqrt,
    "Square": h_square,
    "Cast": h_cast,
    "Softmax": h_softmax,
    "Mean": h_reduce,
    "Sum": h_reduce,
    "Max": h_reduce,
    "ResizeBilinear": h_resize,
    "Pad": h_pad,
    "Reshape": h_reshape,
    "Squeeze": h_squeeze,
    "ExpandDims": h_expand_dims,
    "ConcatV2": h_concat,
    "Pack": h_pack,
    "Unpack": h_unpack,
    "ArgMax": h_argmax,
    "GatherNd": h_gather_nd,
    "GatherV2": h_gather_v2,
    "TopKV2": h_topk,
    "MatMul": h_matmul,
    "StridedSlice": h_strided_slice,
    "SpaceToBatchND": h_space_to_batch,
    "BatchToSpaceND": h_batch_to_space,
}


def tf_shapes(graph, meta):
    """Shapes of every TensorFlow tensor, by a layout-keeping conversion and
    ONNX's shape inference."""
    cv = Converter(graph, meta)
    cv.run()
    cv.infer_so_far()
    return cv.shapes


def convert(graph_pb2, pb_path, meta):
    graph = graph_pb2.GraphDef()
    with open(pb_path, "rb") as f:
        graph.ParseFromString(f.read())
    shapes = tf_shapes(graph, meta)
    model = Converter(graph, meta, shapes).run()
    onnx.checker.check_model(model)
    return model


def cache_key(pb_path, meta):
    h = hashlib.sha256()
    with open(pb_path, "rb") as f:
        h.update(f.read())
    with open(os.path.abspath(__file__), "rb") as f:
        h.update(f.read())
    h.update(json.dumps([meta["inputs"], [o["name"] for o in meta["outputs"]]],
                        sort_keys=True).encode())
    return h.hexdigest()[:16]


def main():
    args = sys.argv[1:]
    graph_pb2 = load_proto_modules()
    if args and args[0] == "--ops":
        for path in args[1:]:
            g = graph_pb2.GraphDef()
            with open(path, "rb") as f:
                g.ParseFromString(f.read())
            ops = Counter(n.op for n in g.node)
            missing = sorted(o for o in ops if o not in HANDLERS and o not in FOLD
                             and o not in ("Const", "Placeholder"))
            print("%s: %s%s" % (os.path.basename(path),
                                " ".join("%s:%d" % kv for kv in sorted(ops.items())),
                                ("  UNMAPPED " + " ".join(missing)) if missing else ""))
        return 0
    if args and args[0] == "--cache":
        # --cache DIR NAME graph.pb meta.json: the converted file under DIR,
        # keyed by a hash of the graph, this converter and the feeds; a
        # refusal is kept beside it and repeated.
        if len(args) != 5:
            print(__doc__, file=sys.stderr)
            return 2
        cache_dir, name, pb_path, meta_path = args[1:]
        with open(meta_path) as f:
            meta = json.load(f)
        base = os.path.join(cache_dir, "%s-%s" % (name, cache_key(pb_path, meta)))
        if os.path.exists(base + ".onnx"):
            print(base + ".onnx")
            return 0
        if os.path.exists(base + ".refused"):
            with open(base + ".refused") as f:
                print(f.read().strip())
            return 3
        os.makedirs(cache_dir, exist_ok=True)
        out = base + ".onnx"
    elif len(args) == 3:
        pb_path, meta_path, out = args
        base = None
        with open(meta_path) as f:
            meta = json.load(f)
    else:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        model = convert(graph_pb2, pb_path, meta)
    except Unsupported as e:
        why = "unsupported: %s" % e
        if base is not None:
            with open(base + ".refused", "w") as f:
                f.write(why + "\n")
        print(why)
        return 3
    tmp = out + ".tmp%d" % os.getpid()
    onnx.save(model, tmp)
    os.replace(tmp, out)
    if base is not None:
        print(out)
    else:
        print("wrote %s (%d nodes, %d transposes)" % (
            out, len(model.graph.node), sum(n.op_type == "Transpose" for n in model.graph.node)))
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Static stack budget of the TM4C123 image.

The firmware's own functions come with their frame sizes and calls from the compiler
(-fcallgraph-info=su: one .ci file in VCG form beside each object). Library code (newlib, libgcc)
has none, so its frames and calls are read from the linked image's disassembly: the prologue's
pushes and stack-pointer subtractions, and its branches to other functions.

From the reset vector, the deepest chain of calls must fit in the stack reserve less what an
interrupt can add on top of it at that point: the exception frame the processor stacks (with the
FPU state) and the deepest chain of any other vector. All interrupts share one priority, so they
do not nest. Recursion, indirect calls and frames sized at run time cannot be bounded here: they
are listed. An indirect call is taken to reach every function whose address its own source file
takes (the command tables sit beside their dispatchers) or a file that calls into it takes (an entry
handed down by a higher layer, such as the menu the start-up gives the host link); one in the library, every library
function whose address it or its nearest library caller loads (printf's output routine is handed
down from the caller that picks it).

Exit status 1 when the chain does not fit.
"""

import argparse
import os
import re
import subprocess
import sys

# Hardware-stacked frame with the FPU state (lazy stacking reserves it), and the word the processor
# inserts to keep the stack 8-byte aligned.
EXCEPTION_FRAME = 104
ALIGN_PAD = 4

NODE_RE = re.compile(r'node: \{ title: "([^"]*)" label: "([^"]*)"')
EDGE_RE = re.compile(r'edge: \{ sourcename: "([^"]*)" targetname: "([^"]*)" label: "([^"]*)"')
FRAME_RE = re.compile(r"(\d+) bytes \(([a-z,]+)\)")
FUNC_LABEL_RE = re.compile(r"^([0-9a-f]+) <(.+)>:$")
INSN_RE = re.compile(r"^\s*([0-9a-f]+):\t(\S+)(?:\t(.*))?$")
TARGET_RE = re.compile(r"^([0-9a-f]+) <([^>]+)>")
IMM_RE = re.compile(r"#(\d+)")
WRITEBACK_RE = re.compile(r"\[sp, #-(\d+)\]!")


class Function:
    def __init__(self, name, frame, kind):
        self.name = name
        self.frame = frame
        self.kind = kind  # static, dynamic, dynamic,bounded, or estimated (library)
        self.calls = set()
        self.indirect_sites = []  # where it calls through a pointer
        self.source = None  # the firmware source file, for the indirect-call targets


def run(tool, *args):
    return subprocess.run([tool, *args], check=True, capture_output=True, text=True).stdout


def stack_size(linker_script):
    with open(linker_script) as f:
        m = re.search(r"__stack_size\s*=\s*(\d+)\s*([KkMm]?)\s*;", f.read())
    if not m:
        sys.exit(f"stack: no __stack_size in {linker_script}")
    scale = {"": 1, "k": 1024, "m": 1024 * 1024}[m.group(2).lower()]
    return int(m.group(1)) * scale


def read_call_graphs(ci_files):
    """Functions and calls of the firmware from the compiler's .ci files."""
    functions = {}
    edges = []
    for path in ci_files:
        with open(path) as f:
            text = f.read()
        source = re.match(r'graph: \{ title: "([^"]*)"', text).group(1)
        for title, label in NODE_RE.findall(text):
            m = FRAME_RE.search(label)
            if not m:
                continue  # a callee declared here, defined elsewhere
            frame, kind = int(m.group(1)), m.group(2)
            old = functions.get(title)
            if old and old.frame >= frame:
                continue  # an inline function emitted in several files
            fn = Function(title, frame, kind)
            fn.source = source
            functions[title] = fn
        for src, dst, where in EDGE_RE.findall(text):
            edges.append((src, dst, where))
    return functions, edges


def taken_addresses(readelf, objects):
    """Per source file, the functions whose address its object takes (tables, pointer arguments)."""
    taken = {}
    current = None
    wanted = False
    text = run(readelf, "-rW", *objects) if objects else ""
    for line in text.splitlines():
        if line.startswith("File: "):
            current = taken.setdefault(line[6:].strip(), set())
            continue
        if line.startswith("Relocation section"):
            section = line.split("'")[1]
            wanted = re.match(r"\.rel\.(text|rodata|data|init_array|preinit_array)", section) is not None
            continue
        fields = line.split()
        if not wanted or len(fields) < 5 or not fields[2].startswith("R_ARM_"):
            continue
        if fields[2] not in ("R_ARM_ABS32", "R_ARM_THM_MOVW_ABS_NC", "R_ARM_THM_MOVT_ABS"):
            continue
        symbol = fields[4]
        if symbol.startswith(".text."):
            symbol = symbol[len(".text.") :]
        current.add(symbol)
    return taken


def frame_of(mnemonic, operands):
    """Bytes an instruction moves the stack pointer down by; None when only known at run time."""
    base = mnemonic.split(".")[0]
    if base in ("push", "stmdb", "stmfd", "vpush", "vstmdb") and (base in ("push", "vpush") or "sp!" in operands):
        size = 0
        for reg in re.findall(r"[a-z]+\d*(?:-[a-z]+\d+)?", operands[operands.find("{") :]):
            first, _, last = reg.partition("-")
            count = int(last[1:]) - int(first[1:]) + 1 if last else 1
            size += count * (8 if first.startswith("d") else 4)
        return size
    if base in ("sub", "subw") and re.match(r"sp, (sp, )?", operands):
        m = IMM_RE.search(operands)
        return int(m.group(1)) if m else None
    if base in ("str", "strd") and (m := WRITEBACK_RE.search(operands)):
        return int(m.group(1))
    return 0


def read_image(objdump, elf, ours):
    """Library functions from the disassembly; also which address starts which function."""
    starts = []
    library = {}
    pools = {}  # per library function, the words of its literal pool: addresses it loads
    fn = None
    for line in run(objdump, "-d", "--no-show-raw-insn", elf).splitlines():
        m = FUNC_LABEL_RE.match(line)
        if m:
            address, name = int(m.group(1), 16), m.group(2)
            starts.append((address, name))
            fn = None
            if name not in ours:
                fn = library.setdefault(name, Function(name, 0, "estimated"))
            continue
        m = INSN_RE.match(line)
        if not m:
            continue
        mnemonic, operands = m.group(2), m.group(3) or ""
        if fn is None:
            continue
        if mnemonic == ".word":
            pools.setdefault(fn.name, []).append(int(operands.split()[0], 16))
            continue
        # Every push and subtraction counts, as if all paths through the function ran at once.
        size = frame_of(mnemonic, operands)
        if size is None:
            fn.kind = "dynamic"
        else:
            fn.frame += size
        target = TARGET_RE.match(operands)
        if mnemonic.startswith("b") and target:
            # A branch into another function is a call or a tail call, also past its start.
            callee = target.group(2).split("+0x")[0]
            if callee != fn.name:
                fn.calls.add(callee)
        elif mnemonic in ("blx", "bx") and re.fullmatch(r"r\d+|ip", operands.strip()):
            fn.indirect_sites.append(hex(int(m.group(1), 16)))
    return starts, library, pools


def section_words(objdump, elf, sections):
    """The 32-bit words of the given sections (vector table, data, constants)."""
    args = []
    for s in sections:
        args += ["-j", s]
    words = []
    for line in run(objdump, "-s", *args, elf).splitlines():
        m = re.match(r"^ ([0-9a-f]{4,8}) ((?:[0-9a-f]{2,8} ?){1,4})", line)
        if not m:
            continue
        for group in m.group(2).split():
            if len(group) == 8:
                words.append(int.from_bytes(bytes.fromhex(group), "little"))
    return words


def symbol_aliases(nm, elf, starts):
    """Every global function name of the image, mapped to the label the disassembly prints for it;
    and the labels of weak functions."""
    label_at = dict(starts)
    aliases = {}
    weak = set()
    for line in run(nm, elf).splitlines():
        fields = line.split()
        if len(fields) == 3 and fields[1] in "TW":
            label = label_at.get(int(fields[0], 16) & ~1)
            if label:
                aliases[fields[2]] = label
                if fields[1] == "W":
                    weak.add(label)
    return aliases, weak


def demangle(cxxfilt, names):
    if not names:
        return {}
    out = subprocess.run([cxxfilt, "-p"], input="\n".join(names), capture_output=True, text=True, check=True)
    return dict(zip(names, out.stdout.splitlines()))


def sites(places):
    """file.cpp:71:14, file.cpp:76:14 as file.cpp:71,76."""
    lines = {}
    for place in places:
        file, line = place.split(":")[:2]
        lines.setdefault(file, []).append(line)
    return ", ".join(f"{file}:{','.join(numbers)}" for file, numbers in lines.items())


def cost_walk(graph, roots):
    """Deepest chain below each function; calls back into the chain being walked are left out."""
    memo = {}
    best_call = {}
    on_chain = set()
    sys.setrecursionlimit(100000)

    def walk(name):
        if name in memo:
            return memo[name]
        fn = graph.get(name)
        if fn is None or name in on_chain:
            return 0
        on_chain.add(name)
        deepest, via = 0, None
        for callee in sorted(fn.calls):
            c = walk(callee)
            if c > deepest:
                deepest, via = c, callee
        on_chain.discard(name)
        memo[name] = fn.frame + deepest
        best_call[name] = via
        return memo[name]

    for root in roots:
        walk(root)
    return memo, best_call


def chain_of(root, best_call):
    chain = [root]
    while best_call.get(chain[-1]) and best_call[chain[-1]] not in chain:
        chain.append(best_call[chain[-1]])
    return chain


def reachable(graph, roots):
    seen = set()
    todo = [r for r in roots if r in graph]
    while todo:
        name = todo.pop()
        if name in seen:
            continue
        seen.add(name)
        todo.extend(c for c in graph[name].calls if c in graph and c not in seen)
    return seen


def cycles(graph, nodes):
    """Strongly connected groups of mutually calling functions (Tarjan), each shown as one loop."""
    index, low, stack, on_stack, groups = {}, {}, [], set(), []
    counter = [0]

    def connect(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on_stack.add(v)
        for w in sorted(graph[v].calls):
            if w not in nodes:
                continue
            if w not in index:
                connect(w)
                low[v] = min(low[v], low[w])
            elif w in on_stack:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            group = []
            while True:
                w = stack.pop()
                on_stack.discard(w)
                group.append(w)
                if w == v:
                    break
            if len(group) > 1 or v in graph[v].calls:
                groups.append(set(group))

    for v in sorted(nodes):
        if v not in index:
            connect(v)
    loops = []
    for group in groups:
        start = min(group)
        # Shortest way from start back to itself inside the group.
        previous = {start: None}
        frontier = [start]
        loop = None
        while frontier and loop is None:
            nxt = []
            for v in frontier:
                for w in sorted(graph[v].calls):
                    if w == start:
                        loop = [start]
                        u = v
                        while u is not None and u != start:
                            loop.insert(1, u)
                            u = previous[u]
                        loop.append(start)
                        break
                    if w in group and w not in previous:
                        previous[w] = v
                        nxt.append(w)
                if loop:
                    break
            frontier = nxt
        loops.append((len(group), loop))
    return loops


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--elf", required=True)
    parser.add_argument("--linker-script", required=True)
    parser.add_argument("--summary", required=True, help="file that receives the one-line summary")
    parser.add_argument("--tool-prefix", default="arm-none-eabi-")
    parser.add_argument("objects", nargs="+", help="the image's object files; each has its .ci beside it")
    args = parser.parse_args()

    def tool(name):
        return args.tool_prefix + name

    ci_files = []
    for obj in args.objects:
        ci = os.path.splitext(obj)[0] + ".ci"
        if os.path.exists(ci):
            ci_files.append(ci)
    ours, edges = read_call_graphs(ci_files)
    if not ours:
        sys.exit("stack: no .ci files beside the objects: compile with -fcallgraph-info=su")
    local_names = {title.rsplit(":", 1)[1] for title in ours if ":" in title}
    starts, library, pools = read_image(tool("objdump"), args.elf, set(ours) | local_names)
    aliases, weak = symbol_aliases(tool("nm"), args.elf, starts)

    graph = dict(library)
    graph.update(ours)

    def resolve(name):
        if name in ours:
            return name
        return aliases.get(name, name)

    # Firmware calls; a library function may be known to the compiler by an alias (__aeabi_dmul).
    for src, dst, where in edges:
        fn = ours.get(src)
        if fn is None:
            continue
        if dst == "__indirect_call":
            fn.indirect_sites.append(where.replace(os.path.dirname(fn.source) + "/", ""))
            continue
        fn.calls.add(resolve(dst))
    for fn in library.values():
        fn.calls = {resolve(c) for c in fn.calls}

    # Indirect calls.
    taken_by_source = {}
    objects_taken = taken_addresses(tool("readelf"), [o for o in args.objects if os.path.exists(o)])
    for obj, names in objects_taken.items():
        ci = os.path.splitext(obj)[0] + ".ci"
        if ci not in ci_files:
            continue
        with open(ci) as f:
            source = re.match(r'graph: \{ title: "([^"]*)"', f.read()).group(1)
        targets = set()
        for name in names:
            local = f"{source}:{name}"
            if local in ours:
                targets.add(local)
            elif resolve(name) in graph:
                targets.add(resolve(name))
        taken_by_source[source] = targets
    every_taken = set().union(*taken_by_source.values()) if taken_by_source else set()
    start_of = {address: name for address, name in starts}

    def library_functions(words):
        return {start_of[w & ~1] for w in words if w & 1 and start_of.get(w & ~1) in library}

    # A library function calls through a pointer it loads itself or one its callers hand down (the
    # output routine of printf, the refill of scanf): up the calls to the nearest function that
    # loads one. Tables in data (the locale's conversions) may reach any of them.
    in_data = library_functions(section_words(tool("objdump"), args.elf, [".data", ".rodata"]))
    # A weak function the loader also calls directly is only tested for presence (is float
    # formatting linked in?), not handed on.
    loads = {}
    for name, words in pools.items():
        loads[name] = {f for f in library_functions(words) if f not in weak or f not in library[name].calls}
    every_load = set().union(in_data, *loads.values())
    callers = {}
    for fn in library.values():
        for callee in fn.calls:
            callers.setdefault(callee, set()).add(fn.name)

    def library_targets(name):
        found = set(loads.get(name, ()))
        seen, todo = {name}, list(callers.get(name, ()))
        while todo:
            n = todo.pop()
            if n in seen or n not in library:
                continue
            seen.add(n)
            if loads.get(n):
                found |= loads[n]
            else:
                todo.extend(callers.get(n, ()))
        return (found | in_data) if found else every_load

    # The files that call into each file: a pointer a caller hands down comes from one of them.
    calling_files = {}
    for fn in graph.values():
        for callee in fn.calls:
            target = graph.get(callee)
            if target is not None and target.source and fn.source and target.source != fn.source:
                calling_files.setdefault(target.source, set()).add(fn.source)

    for fn in graph.values():
        if not fn.indirect_sites:
            continue
        if fn.name in library:
            fn.calls |= library_targets(fn.name)
            continue
        targets = set(taken_by_source.get(fn.source, ()))
        for caller_source in calling_files.get(fn.source, ()):
            targets |= taken_by_source.get(caller_source, set())
        fn.calls |= targets or every_taken

    vectors = section_words(tool("objdump"), args.elf, [".isr_vectors"])
    reset = start_of.get(vectors[1] & ~1)
    handlers = sorted({start_of[v & ~1] for v in vectors[2:] if start_of.get(v & ~1)} - {reset})
    roots = [reset] + handlers
    missing = [r for r in roots if r not in graph]
    if missing:
        sys.exit(f"stack: vector handlers not found in the image: {', '.join(missing)}")

    cost, best_call = cost_walk(graph, roots)
    live = reachable(graph, roots)
    names = demangle(tool("c++filt"), sorted(n.rsplit(":", 1)[-1] for n in live))

    def shown(name):
        short = names.get(name.rsplit(":", 1)[-1], name)
        return short.replace("(anonymous namespace)::", "")

    def path(chain):
        return " > ".join(shown(n) for n in chain)

    handler = max(handlers, key=lambda h: cost[h])
    headroom = EXCEPTION_FRAME + ALIGN_PAD + cost[handler]
    reserve = stack_size(args.linker_script)
    deepest = cost[reset]
    limit = reserve - headroom

    largest = sorted((fn for fn in map(graph.get, live)), key=lambda f: -f.frame)[:6]
    print("stack: largest frames: " + ", ".join(f"{shown(f.name)} {f.frame}" for f in largest))
    for size, loop in sorted(cycles(graph, live), key=lambda c: c[1]):
        where = " in the library" if all(n in library for n in loop) else ""
        group = f" (one of {size} functions calling each other)" if size > len(loop) - 1 else ""
        print(f"stack: warning: recursion{where}, not bounded: {path(loop)}{group}")
    for fn in sorted((graph[n] for n in live if graph[n].kind.startswith("dynamic")), key=lambda f: f.name):
        print(f"stack: warning: frame sized at run time, counted at {fn.frame} bytes: {shown(fn.name)}")
    unknown = sorted({c for n in live for c in graph[n].calls if c not in graph})
    if unknown:
        print("stack: warning: calls to functions not in the image, counted as 0: " + ", ".join(unknown))
    indirect = sorted((graph[n] for n in live if graph[n].indirect_sites), key=lambda f: shown(f.name))
    firmware = [f"{shown(f.name)} ({sites(f.indirect_sites)})" for f in indirect if f.name not in library]
    if firmware:
        print("stack: indirect calls, taken to reach every function whose address their file takes: " +
              ", ".join(firmware))
    in_library = [shown(f.name) for f in indirect if f.name in library]
    if in_library:
        print("stack: indirect calls in the library, taken to reach every function whose address they or "
              "their nearest library caller load: " + ", ".join(in_library))
    print(f"stack: interrupts add {headroom:,} bytes: {EXCEPTION_FRAME + ALIGN_PAD} of exception frame "
          f"and {cost[handler]:,} ({path(chain_of(handler, best_call))})")

    summary = f"stack: deepest static chain {deepest:,} of {reserve:,} bytes ({path(chain_of(reset, best_call))})"
    with open(args.summary, "w") as f:
        f.write(summary + "\n")
    print(summary)
    if deepest > limit:
        print(f"stack: error: {deepest:,} bytes are more than the {limit:,} the {reserve:,}-byte reserve "
              f"leaves beside an interrupt ({headroom:,})", file=sys.stderr)
        os.remove(args.summary)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

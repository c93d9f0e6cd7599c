#!/usr/bin/python3
"""dxfexports.py OURS.dxf EXPORT.dxf SEED [OURS.dxf EXPORT.dxf SEED ...]

Compares each of our DXF files with another program's DXF export of the same
drawing, entity by entity, matched by handle: every entity of the BLOCKS and
ENTITIES sections (BLOCK and ENDBLK, a polyline's vertices, an insert's
attributes and their SEQEND too) must be in both, in the same block or
entity, with the same type and layer (case ignored) and the same
coordinates and reals: every point, real and angle attribute the reader
knows for the type (a group one file leaves out counts as the reader's
default), and the point, control point and knot lists of the types that hold
them. A 2D POLYLINE of the export may be our LWPOLYLINE of its vertices.
Reals agree within 1e-9 (relative above 1), or 1e-6 when the export writes
its entities with fewer than ten decimal places.

SEED is the drawing's own $HANDSEED (hex): entities of the export at or
above it are the exporter's own making and are only counted.

Prints one JSON object a line and triple:
  {"file": OURS, "entities": matched, "made": the exporter's own,
   "tolerance": t, "differences": ["HANDLE TYPE what", ...]}
where "what" is "in BLOCK only in ours" (or "the export"), "in BLOCK export
in BLOCK", "type export TYPE", "layer L export L", "CODE NAME (ours) export
(theirs)", "CODE NAME only in ours" (or "the export": no default) or a
list's "NAME: COUNT export COUNT" and "NAME differ".
"""
import json
import math
import multiprocessing
import re
import sys

import ezdxf
from ezdxf import recover
from ezdxf.lldxf.loader import load_dxf_structure
from ezdxf.lldxf.tagger import ascii_tags_loader

# The groups compared by the reader's attributes: points, elevation and
# thickness, reals, angles, the extrusion.
_CODES = set(range(10, 19)) | set(range(38, 59)) | {210}
_DECIMALS = re.compile(r"^\s*-?\d+\.(\d+)\s*$")


def _tolerance(path):
    """1e-9, or 1e-6 when no real of BLOCKS or ENTITIES has ten decimals."""
    most, inside, previous = 0, False, ""
    with open(path, encoding="latin-1") as f:
        for line in f:
            text = line.strip()
            if previous == "2" and text in ("BLOCKS", "ENTITIES"):
                inside = True
            elif text == "ENDSEC":
                inside = False
            elif inside and (m := _DECIMALS.match(line)):
                most = max(most, len(m.group(1)))
            previous = text
    return 1e-9 if most >= 10 else 1e-6


def _block_key(name):
    """A block by name, an anonymous one by its kind: writers number them
    anew."""
    upper = name.upper()
    if upper.startswith("*") and not upper.startswith(("*MODEL_SPACE", "*PAPER_SPACE")):
        return upper.rstrip("0123456789")
    return upper


def _graphics(doc, path):
    """Handle -> (entity, where) for every entity of every block, the spaces'
    too, that the file itself holds: where is the block's key, or for a
    vertex, an attribute and a SEQEND "#" and the handle of their entity.
    The reader makes entities of its own for older releases (the arrow
    blocks); those are left out. Handles of the file that the reader gave no
    entity come back as the second value."""
    raw = set()
    with open(path, encoding="latin-1") as f:
        sections = load_dxf_structure(ascii_tags_loader(f))
    for name in ("BLOCKS", "ENTITIES"):
        for tags in sections.get(name, [])[1:]:
            handle = next((t.value for t in tags if t.code == 5), None)
            if handle is not None:
                raw.add(handle.upper())
    out = {}

    def add(e, where):
        if e is not None and e.dxf.hasattr("handle") and e.dxf.handle.upper() in raw:
            out[e.dxf.handle.upper()] = (e, where)

    for b in doc.blocks:
        block = _block_key(b.name)
        add(b.block, block)
        add(b.endblk, block)
        for e in b:
            add(e, block)
            kind = e.dxftype()
            if kind in ("POLYLINE", "INSERT"):
                for sub in e.vertices if kind == "POLYLINE" else e.attribs:
                    add(sub, "#" + e.dxf.handle.upper())
                add(e.seqend, "#" + e.dxf.handle.upper())
    return out, raw - set(out)


def _lists(e):
    """The lists of points and reals of the types that hold them."""
    kind = e.dxftype()
    try:
        if kind == "LWPOLYLINE":
            return {"points": [tuple(p) for p in e.get_points("xyseb")]}
        if kind == "SPLINE":
            return {
                "control points": [tuple(p) for p in e.control_points],
                "fit points": [tuple(p) for p in e.fit_points],
                "knots": list(e.knots),
                "weights": list(e.weights),
            }
        if kind == "LEADER":
            return {"vertices": [tuple(p) for p in e.vertices]}
        if kind == "MLINE":
            return {"vertices": [tuple(v.location) for v in e.vertices]}
    except Exception as ex:  # a list the reader can't give is a finding
        return {"error": [f"{type(ex).__name__}: {ex}"]}
    return {}


def _flat(value):
    if isinstance(value, (int, float)):
        return [float(value)]
    try:
        return [float(v) for v in value]
    except (TypeError, ValueError):
        return None


def _differ(a, b, tol):
    fa, fb = _flat(a), _flat(b)
    if fa is None or fb is None:
        return a != b
    # A 2D point of one file is the 3D point with Z zero of the other.
    if sorted((len(fa), len(fb))) == [2, 3]:
        fa, fb = fa + [0.0] * (3 - len(fa)), fb + [0.0] * (3 - len(fb))
    return len(fa) != len(fb) or any(not math.isclose(x, y, rel_tol=tol, abs_tol=tol) for x, y in zip(fa, fb))


def _show(v):
    f = _flat(v)
    return repr(v) if f is None else "(" + ", ".join(f"{x:.17g}" for x in f) + ")"


def _compare(ours, theirs, tol):
    """What differs between two entities of one handle."""
    out = []
    kind, other = ours.dxftype(), theirs.dxftype()
    if kind == "LWPOLYLINE" and other == "POLYLINE" and theirs.get_mode() == "AcDb2dPolyline":
        # The load turns a 2D polyline into a lightweight one: its vertices
        # become the points.
        points = [tuple(p) for p in ours.get_points("xyseb")]
        vertices = [(v.dxf.location.x, v.dxf.location.y, v.dxf.start_width, v.dxf.end_width, v.dxf.bulge)
                    for v in theirs.vertices]
        if len(points) != len(vertices):
            out.append(f"points: {len(points)} export {len(vertices)} vertices")
        elif any(_differ(x, y, tol) for x, y in zip(points, vertices)):
            out.append("points differ from the vertices")
        if _differ(ours.dxf.elevation, theirs.dxf.elevation.z, tol):
            out.append(f"elevation {ours.dxf.elevation} export {theirs.dxf.elevation.z}")
        return out
    if kind != other:
        return [f"type export {other}"]
    a, b = ours.dxf.get("layer", ""), theirs.dxf.get("layer", "")
    if kind not in ("BLOCK", "ENDBLK") and a.upper() != b.upper():
        out.append(f"layer {a} export {b}")
    for name, attr in ours.DXFATTRIBS._attribs.items():
        if attr.code not in _CODES:
            continue
        has_a, has_b = ours.dxf.hasattr(name), theirs.dxf.hasattr(name)
        if not (has_a or has_b):
            continue
        a = ours.dxf.get(name) if has_a else attr.default
        b = theirs.dxf.get(name) if has_b else attr.default
        if a is None or b is None:
            out.append(f"{attr.code} {name} only in {'ours' if has_a else 'the export'}")
        elif _differ(a, b, tol):
            out.append(f"{attr.code} {name} {_show(a)} export {_show(b)}")
    la, lb = _lists(ours), _lists(theirs)
    for name in sorted(set(la) | set(lb)):
        a, b = la.get(name, []), lb.get(name, [])
        if len(a) != len(b):
            out.append(f"{name}: {len(a)} export {len(b)}")
        elif any(_differ(x, y, tol) for x, y in zip(a, b)):
            out.append(f"{name} differ")
    return out


def _one(ours_path, export_path, seed):
    result = {"file": ours_path, "entities": 0, "made": 0, "differences": []}
    diffs = result["differences"]
    try:
        ours = ezdxf.readfile(ours_path)
    except Exception as ex:  # our file must read as it is
        diffs.append(f"ours doesn't read: {type(ex).__name__}: {ex}")
        return result
    theirs, _ = recover.readfile(export_path)
    tol = result["tolerance"] = _tolerance(export_path)
    (a, lost), (b, _) = _graphics(ours, ours_path), _graphics(theirs, export_path)
    diffs += [f"{h} not read from ours" for h in sorted(lost)]
    made = {h for h in b if int(h, 16) >= seed and h not in a}
    result["made"] = len(made)
    # A polyline's vertices that our lightweight polyline holds as points.
    folded = {h for h, (_, where) in b.items() if where[1:] in a and a[where[1:]][0].dxftype() == "LWPOLYLINE"}
    for h in sorted(set(a) | (set(b) - folded - made), key=lambda h: int(h, 16)):
        if h not in b:
            diffs.append(f"{h} {a[h][0].dxftype()} in {a[h][1]} only in ours")
        elif h not in a:
            diffs.append(f"{h} {b[h][0].dxftype()} in {b[h][1]} only in the export")
        else:
            (e, where), (x, there) = a[h], b[h]
            result["entities"] += 1
            if where != there:
                diffs.append(f"{h} {e.dxftype()} in {where} export in {there}")
            diffs += [f"{h} {e.dxftype()} {d}" for d in _compare(e, x, tol)]
    return result


def one(triple):
    try:
        result = _one(triple[0], triple[1], int(triple[2], 16))
    except Exception as ex:  # a reader crash is a finding, not the end of the run
        result = {"file": triple[0], "entities": 0, "differences": [f"crash {type(ex).__name__}: {ex}"]}
    return json.dumps(result)


def main(argv):
    if len(argv) < 3 or len(argv) % 3:
        print(__doc__, file=sys.stderr)
        return 64
    with multiprocessing.Pool(2) as pool:
        for line in pool.imap(one, list(zip(argv[0::3], argv[1::3], argv[2::3]))):
            print(line, flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

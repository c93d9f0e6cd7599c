#!/usr/bin/python3
"""dxfobjects.py OURS.dxf SEED EXPORT.dxf|- [OURS.dxf SEED EXPORT.dxf|- ...]

Checks the OBJECTS section of each of our DXF files as ezdxf reads it: the
file loads; every object's groups stand in their places (ezdxf's structure
check: extended data last, application groups closed); the first object is
the root dictionary, owned by nothing; every other object has an owner and
reactors that exist in the file; a dictionary's entries exist and the objects
among them are owned by that dictionary, and an object owned by a dictionary
is one of its entries or its extension dictionary; an extension dictionary
is owned by the record that names it; a group's members exist; a layout's
block record exists and names the layout.

SEED is the drawing's own $HANDSEED (hex). With an export of the same
drawing (another program's DXF of the very same objects), every object of
the export is one of ours by handle, of the same type and owner, and every
object of ours below SEED is one of the export's; the objects at and above
SEED are the ones the load made (R2000 layouts for an older drawing).

Prints one JSON object a line and triple:
  {"file": OURS, "counts": {TYPE: n}, "root": [entry names],
   "problems": ["HANDLE TYPE what", ...]}
"""
import json
import multiprocessing
import sys
from collections import Counter

import ezdxf
from ezdxf.lldxf.loader import load_dxf_structure
from ezdxf.lldxf.tagger import ascii_tags_loader
from ezdxf.lldxf.validator import entity_structure_validator

_DICTIONARIES = ("DICTIONARY", "ACDBDICTIONARYWDFLT")


class Record:
    """One record of the file: type, handle, owner, extension dictionary,
    reactors and the groups outside the application groups."""

    def __init__(self, tags):
        self.type = tags[0].value
        self.handle = None
        self.owner = None
        self.xdict = None
        self.reactors = []
        self.groups = []
        app = None
        for t in tags[1:]:
            if t.code == 102:
                app = None if t.value == "}" else t.value
            elif app == "{ACAD_XDICTIONARY" and t.code == 360:
                self.xdict = t.value.upper()
            elif app == "{ACAD_REACTORS" and t.code == 330:
                self.reactors.append(t.value.upper())
            elif app is None:
                if t.code == 5 and self.handle is None or t.code == 105:
                    self.handle = t.value.upper()
                elif t.code == 330 and self.owner is None:
                    self.owner = t.value.upper()
                self.groups.append(t)

    def values(self, code, subclass=None):
        inside = subclass is None
        out = []
        for t in self.groups:
            if t.code == 100:
                inside = subclass is None or t.value == subclass
            elif t.code == code and inside:
                out.append(t.value)
        return out

    def entries(self):
        """A dictionary's (name, handle) pairs."""
        out, name = [], None
        for t in self.groups:
            if t.code == 3:
                name = t.value
            elif t.code in (350, 360) and name is not None:
                out.append((name, t.value.upper()))
                name = None
        return out


def _records(path):
    with open(path, encoding="latin-1") as f:
        sections = load_dxf_structure(ascii_tags_loader(f))
    everything, objects = {}, []
    for name, records in sections.items():
        for tags in records[1:]:
            r = Record(tags)
            r.tags = tags
            if r.handle:
                everything[r.handle] = r
            if name == "OBJECTS":
                objects.append(r)
    return everything, objects


def _check(path):
    problems = []
    try:
        ezdxf.readfile(path)
    except Exception as ex:  # the file must load; the groups are checked still
        problems.append(f"doesn't load: {type(ex).__name__}: {ex}")
    everything, objects = _records(path)
    if not objects:
        return {}, [], ["no objects"]
    root = objects[0]
    if root.type != "DICTIONARY" or root.owner not in (None, "0"):
        problems.append(f"{root.handle} {root.type} the first object is no root dictionary (owner {root.owner})")
    for r in objects:
        what = f"{r.handle} {r.type}"
        try:
            list(entity_structure_validator(r.tags))
        except Exception as ex:
            problems.append(f"{what} groups out of place: {ex}")
        if r is not root and (r.owner is None or r.owner not in everything):
            problems.append(f"{what} owner {r.owner} missing")
        problems += [f"{what} reactor {h} missing" for h in r.reactors if h not in everything]
        if r.type in _DICTIONARIES:
            for name, h in r.entries():
                entry = everything.get(h)
                if entry is None:
                    problems.append(f"{what} entry {name} {h} missing")
                elif entry in objects and entry.owner != r.handle:
                    problems.append(f"{what} entry {name} {h} owned by {entry.owner}")
        if r.owner in everything and everything[r.owner].type in _DICTIONARIES and r is not root:
            owner = everything[r.owner]
            if r.handle not in {h for _, h in owner.entries()} and owner.xdict != r.handle:
                problems.append(f"{what} not an entry of its owner {r.owner}")
        if r.type == "GROUP":
            problems += [f"{what} member {h} missing" for h in r.values(340) if h.upper() not in everything]
        if r.type == "LAYOUT":
            block = everything.get(next(iter(r.values(330, "AcDbLayout")), "").upper())
            if block is None or block.type != "BLOCK_RECORD":
                problems.append(f"{what} block record missing")
            elif [h.upper() for h in block.values(340)] != [r.handle]:
                problems.append(f"{what} block record {block.handle} names {block.values(340)}")
    for r in everything.values():
        if r.xdict is not None:
            x = everything.get(r.xdict)
            if x is None or x.owner != r.handle:
                problems.append(f"{r.handle} {r.type} extension dictionary {r.xdict} "
                                f"{'missing' if x is None else 'owned by ' + str(x.owner)}")
    counts = Counter(r.type for r in objects)
    return counts, [name for name, _ in root.entries()], problems


def _against(path, seed, export):
    """The objects of ours against those of an export of the same drawing."""
    ours = {r.handle: r for r in _records(path)[1]}
    theirs = {r.handle: r for r in _records(export)[1]}
    out = []
    for h in sorted(set(ours) | set(theirs), key=lambda h: int(h, 16)):
        a, b = ours.get(h), theirs.get(h)
        if b is None:
            if int(h, 16) < seed:
                out.append(f"{h} {a.type} only in ours")
        elif a is None:
            out.append(f"{h} {b.type} only in the export")
        elif a.type != b.type:
            out.append(f"{h} {a.type} export {b.type}")
        elif b.owner is not None and (a.owner or "0") != b.owner:
            out.append(f"{h} {a.type} owner {a.owner} export {b.owner}")
    return out


def one(triple):
    path, seed, export = triple
    result = {"file": path, "counts": {}, "root": [], "problems": []}
    try:
        counts, root, problems = _check(path)
        if export != "-":
            problems += [f"export: {d}" for d in _against(path, int(seed, 16), export)]
        result.update(counts=dict(counts), root=root, problems=problems)
    except Exception as ex:  # a reader crash is a finding, not the end of the run
        result["problems"].append(f"crash {type(ex).__name__}: {ex}")
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

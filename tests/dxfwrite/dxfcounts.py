#!/usr/bin/python3
"""dxfcounts.py DXFCHECK FILE.dxf...

Runs the shared dxfcheck on each file, in this one process (two workers),
and adds what dxfcheck leaves out: the entities block by block, and the
names of the layers, linetypes, text styles and blocks. Prints one JSON
object a line and a file:
  {"file", "status": dxfcheck's exit status, "check": its JSON output,
   "facts": sorted ["in TYPE COUNT BLOCK" for every block, the spaces' too,
                    "layer NAME", "linetype NAME", "style NAME", "block NAME"]}
Non-ASCII characters come as \\u escapes."""
import contextlib
import io
import json
import multiprocessing
import runpy
import sys
from collections import Counter

import ezdxf

_check = None
_read = ezdxf.readfile
_last = []


def _keep(*args, **kwargs):
    """ezdxf.readfile as dxfcheck calls it, keeping the document it read."""
    doc = _read(*args, **kwargs)
    _last.append(doc)
    return doc


def _load(path):
    global _check
    _check = runpy.run_path(path, run_name="dxfcheck")["main"]
    ezdxf.readfile = _keep


def one(path):
    _last.clear()
    out = io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(io.StringIO()):
        try:
            status = _check([path, "--json"])
        except Exception as e:  # a reader crash is a finding, not the end of the run
            status, out = 99, io.StringIO(json.dumps({"error": f"{type(e).__name__}: {e}"}))
    check = json.loads(out.getvalue() or "{}")
    facts = []
    if _last:
        doc = _last[0]
        facts += [f"layer {t.dxf.name}" for t in doc.layers]
        facts += [f"linetype {t.dxf.name}" for t in doc.linetypes]
        facts += [f"style {t.dxf.name}" for t in doc.styles]
        for b in doc.blocks:
            facts.append(f"block {b.name}")
            facts += [f"in {kind} {n} {b.name}" for kind, n in Counter(e.dxftype() for e in b).items()]
    return json.dumps({"file": path, "status": status, "check": check, "facts": sorted(facts)})


def main(argv):
    if len(argv) < 1:
        print(__doc__, file=sys.stderr)
        return 64
    with multiprocessing.Pool(2, initializer=_load, initargs=(argv[0],)) as pool:
        for line in pool.imap(one, argv[1:]):
            print(line, flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

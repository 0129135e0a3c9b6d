#!/usr/bin/env python3
"""Reads Inspect's JSON document from standard input with Python's own
parser (nothing may stand before or behind it; NaN and Infinity, which JSON
does not have, are refused) and prints the value at each dotted path given
("makerNote.zenith.roll", "tracks.0.codec"), one a line, as JSON; "missing"
for a path the document does not have."""
import json
import sys


def refuse(name):
    raise ValueError("not JSON: " + name)


doc = json.load(sys.stdin, parse_constant=refuse)
for path in sys.argv[1:]:
    v = doc
    try:
        for key in path.split("."):
            v = v[int(key)] if isinstance(v, list) else v[key]
        print(json.dumps(v))
    except (KeyError, IndexError, ValueError, TypeError):
        print("missing")

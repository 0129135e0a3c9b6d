#!/usr/bin/env python3
"""Seed corpora for the fuzzing harnesses, cut out of synthetic camera movies.

    make_seeds.py OUTDIR

writes OUTDIR/<harness>/<name> for every harness of FuzzTargets.h. The
movies are small (192x96, half a second) and their media data is cut to a few
bytes, so that every seed stays small; the box structure is kept whole.
"""

import os
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "fixtures"))

import make_movie  # noqa: E402
from mp4box import Box, parse_boxes  # noqa: E402

VARIANTS = {
    "newer": ["--model", "newer"],
    "older": ["--model", "older", "--layout", "moov-first", "--qmkn", "tiff-le", "--sensor-endian", "big"],
    "narvi": ["--model", "newer", "--qmkn", "narvi", "--co64", "--cxyz", "--stab-0109", "--loci", "zero"],
    "hevc": ["--codec", "h265", "--model", "newer", "--spatial", "after-moov", "--sensors", "QDTB,QDTC,QDTD,QDTG,QDTH,QDTI"],
}
COMMON = ["--size", "192x96", "--duration", "0.5", "--thumb-width", "64", "--thumb-size", "4096"]

# Hand-made inputs for the harnesses whose input is plain text.
TEXT_SEEDS = {
    "gps": ["+35.6586+139.7454+040.000/", "-33.8688+151.2093/", "+00.0000-000.0000+000.000/", "+90+180/",
            "<exif:GPSImgDirection>123/10</exif:GPSImgDirection>"],
    "options": ["-vw:320\nin.mp4\nout.mp4", "-view:10,20,90,1\n-h265\n-ss:1\n-to:2.5\nx\ny", "-view:-\n-thumb:t.jpg",
                "-ki:15\n-vb:1000000\n-ab:64000\n-h264", "-h", "-to:1e300\n-ss:99999999999", "-view:nan,inf"],
}


def write(folder, name, data):
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data)


def cut_media(boxes):
    for b in boxes:
        if b.type == b"mdat":
            b.body = b.body[:64]
        elif b.type == b"uuid" and b.body[:16] == make_movie.UUID_SPATIAL:
            inner = parse_boxes(b.body, 16)
            for c in inner:
                if c.type == b"QADT":
                    c.body = c.body[:64]
            b.body = b.body[:16] + b"".join(c.to_bytes() for c in inner)


def find_all(boxes, path):
    head, _, rest = path.partition(".")
    found = []
    for b in boxes:
        if b.type != head.encode():
            continue
        if not rest:
            found.append(b)
        elif b.children is not None:
            found.extend(find_all(b.children, rest))
    return found


def main(argv):
    out = Path(argv[1])
    movies = out / "movies"
    movies.mkdir(parents=True, exist_ok=True)
    for name, options in VARIANTS.items():
        movie = movies / (name + ".mp4")
        if not movie.exists():
            make_movie.make_movie(movie, options + COMMON)
        data = movie.read_bytes()
        top = parse_boxes(data)
        cut_media(top)
        write(out / "boxtree", name, b"".join(b.to_bytes() for b in top))
        for q in find_all(top, "moov.udta.QMKN"):
            write(out / "makernote", name, q.body)
        for entry in find_all(top, "moov.trak.mdia.minf.stbl.stsd"):
            for sample in entry.children:
                if sample.type in (b"avc1", b"hvc1") and len(sample.body) > 78:
                    for inner in parse_boxes(sample.body, 78):
                        if inner.type in (b"avcC", b"hvcC"):
                            write(out / "avcc", name + "-" + inner.type.decode(), inner.body)
        for udta in find_all(top, "moov.udta"):
            kept = [c for c in udta.children if c.type != b"QTHU"]
            write(out / "sensor", name, b"".join(c.to_bytes() for c in kept))
            for c in kept:
                if c.type.startswith(b"QDT"):
                    write(out / "sensor", name + "-" + c.type.decode(), c.to_bytes())
        for x in find_all(top, "moov.udta.@xyz"):
            write(out / "gps", name, x.body)
        for u in find_all(top, "moov.trak.uuid") + find_all(top, "uuid"):
            user = u.body[:16]
            if user == make_movie.UUID_SPHERICAL:
                write(out / "xml", name + "-spherical", u.body[16:])
            elif user == make_movie.UUID_XMP:
                write(out / "xml", name + "-xmp", u.body[16:])
            elif user == make_movie.UUID_AXIS:
                write(out / "sensor", name + "-axis", u.body[16:])
    for harness, texts in TEXT_SEEDS.items():
        for k, t in enumerate(texts):
            write(out / harness, "text%d" % k, t.encode())
    for harness in sorted(os.listdir(out)):
        if harness != "movies":
            print("%s: %d seeds" % (harness, len(os.listdir(out / harness))))


if __name__ == "__main__":
    main(sys.argv)

#!/usr/bin/env python3
"""Seed corpora for the fuzzing harnesses, cut out of synthetic camera movies.

    make_seeds.py OUTDIR

writes OUTDIR/<harness>/<name> for every harness of FuzzTargets.h. The
movies are small (192x96, half a second) and their media data is cut to a few
bytes, so that every seed stays small; the box structure is kept whole. The
conversion's seeds are the whole movies.
"""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "fixtures"))
import make_movie as mm  # noqa: E402

VARIANTS = {
    "newer": ["--model", "newer"],
    "older": ["--model", "older", "--layout", "moov-first", "--qmkn", "tiff-le", "--sensor-endian", "big"],
    "narvi": ["--model", "newer", "--qmkn", "narvi", "--co64", "--loci", "bad"],
    "hevc": ["--codec", "h265", "--model", "newer", "--spatial", "after-moov"],
}
# Hand-made inputs for the harnesses whose input is plain text.
TEXT_SEEDS = {
    "xml": ["+35.6586+139.7454+040.000/", "-33.8688+151.2093/", "+00.0000-000.0000+000.000/", "+90+180/",
            "<exif:GPSImgDirection>123/10</exif:GPSImgDirection>"],
    "options": ["-vw:320\nin.mp4\nout.mp4", "-view:10,20,90,1\n-h265\n-ss:1\n-to:2.5\nx\ny", "-view:-\n-thumb:t.jpg",
                "-ki:15\n-vb:1000000\n-ab:64000\n-h264", "-h", "-to:1e300\n-ss:99999999999", "-view:nan,inf"],
}
USER_TYPES = {mm.UUID_SPHERICAL: ("xml", "-spherical"), mm.UUID_XMP: ("xml", "-xmp"), mm.UUID_AXIS: ("sensor", "-axis")}


def seeds(top):
    """(harness, name suffix, bytes) of one movie, its media cut to 64 bytes."""
    for i, b in enumerate(top):
        if b.type == b"mdat":
            top[i] = mm.Box("mdat", b.body[:64])
        elif b.body[:16] == mm.UUID_SPATIAL:
            inner = [mm.Box(c.type, c.body[:64]) if c.type == b"QADT" else c for c in mm.parse_boxes(b.body, 16)]
            top[i] = mm.uuid_box(mm.UUID_SPATIAL, b"".join(c.to_bytes() for c in inner))
    root = mm.Box("root", children=top)
    yield "boxtree", "", b"".join(b.to_bytes() for b in top)
    yield from (("makernote", "", b.body) for b in root.find("moov.udta.QMKN"))
    yield from (("xml", "-xyz", b.body) for b in root.find("moov.udta.@xyz"))
    for sample in root.find("moov.trak.mdia.minf.stbl.stsd")[0].children:
        yield from (("avcc", "-" + c.type.decode(), c.body) for c in mm.parse_boxes(sample.body, 78) if c.type in (b"avcC", b"hvcC"))
    for udta in root.find("moov.udta"):
        kept = [c for c in udta.children if c.type != b"QTHU"]
        yield "sensor", "", b"".join(c.to_bytes() for c in kept)
        yield from (("sensor", "-" + c.type.decode(), c.to_bytes()) for c in kept if c.type.startswith(b"QDT"))
    for u in root.find("moov.trak.uuid") + root.find("uuid"):
        if u.body[:16] in USER_TYPES:
            yield USER_TYPES[u.body[:16]] + (u.body[16:],)


def main(out):
    found = [(h, "text%d" % k, t.encode()) for h, texts in TEXT_SEEDS.items() for k, t in enumerate(texts)]
    for name, options in VARIANTS.items():
        movie = out / "movies" / (name + ".mp4")
        if not movie.exists():
            mm.make_movie(movie, options + ["--size", "192x96", "--duration", "0.5", "--thumb-size", "4096"])
        found += [(h, name + suffix, data) for h, suffix, data in seeds(mm.parse_boxes(movie.read_bytes()))]
        found.append(("convert", name, movie.read_bytes()))  # whole, so that its first frame decodes
    for harness, name, data in found:
        (out / harness).mkdir(parents=True, exist_ok=True)
        (out / harness / name).write_bytes(data)
    for d in sorted(out.iterdir()):
        if d.name != "movies":
            print("%s: %d seeds" % (d.name, len(list(d.iterdir()))))


if __name__ == "__main__":
    main(Path(sys.argv[1]))

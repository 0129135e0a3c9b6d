#!/bin/bash
# The Debian package of the build (what make deb makes), unpacked into a
# temporary root: it holds the three commands, the converter behind Resize
# with its media module, and the man pages, depends on the libraries the
# commands link, and the commands work from there (and without the module,
# as far as they need none).
#   package_test.sh BUILD_DIR SOURCE_DIR
set -u
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

(cd "$build" && cpack -G DEB -B "$tmp/pkg") >"$tmp/cpack.log" 2>&1 || { cat "$tmp/cpack.log"; exit 1; }
deb=$(ls "$tmp"/pkg/*.deb)
dpkg-deb -x "$deb" "$tmp/root" || exit 1
for f in usr/bin/Resize usr/bin/Inspect usr/bin/resize-batch usr/libexec/resize/Resize usr/libexec/resize/resize-media.so \
    usr/share/man/man1/Resize.1 usr/share/man/man1/resize-batch.1 usr/share/man/man1/Inspect.1; do
    [ -e "$tmp/root/$f" ] || fail "the package lacks $f"
done
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libavcodec libavformat libswscale libturbojpeg; do
    [[ $depends == *"$lib"* ]] || fail "the package does not depend on $lib: $depends"
done

bin=$tmp/root/usr/bin
python3 "$src/tests/fixtures/make_movie.py" --duration 0.5 --size 256x128 --out "$tmp/m.mp4" >/dev/null || exit 1
"$bin/Resize" --help >"$tmp/said" 2>&1 || fail "Resize --help from the package"
grep -q -- "-vw:W" "$tmp/said" || fail "Resize --help lists no -vw:"
"$bin/Resize" -vw:128 "$tmp/m.mp4" "$tmp/out.mp4" >"$tmp/said" 2>&1 || { cat "$tmp/said"; fail "a re-encode with the unpacked Resize"; }
"$bin/Inspect" --json "$tmp/out.mp4" >/dev/null 2>&1 || fail "Inspect from the package does not find the output whole"
"$bin/resize-batch" --help >"$tmp/said" 2>&1 || fail "resize-batch --help from the package"
grep -q -- "-vw:" "$tmp/said" || fail "resize-batch --help does not list the options of the unpacked Resize"
grep -q "thumb.*:FILE.jpg" "$tmp/root/usr/share/man/man1/Resize.1" || fail "the man page of Resize lacks -thumb:"

# Without its media module Resize still converts what needs no decoding (an
# older camera's movie, metadata only: FFmpeg is never loaded for it) and
# refuses a re-encode with the loader's reason, leaving no file behind.
python3 "$src/tests/fixtures/make_movie.py" --model older --duration 0.5 --size 256x128 --out "$tmp/o.mp4" >/dev/null || exit 1
rm "$tmp/root/usr/libexec/resize/resize-media.so"
"$bin/Resize" "$tmp/o.mp4" "$tmp/plain.mp4" >"$tmp/said" 2>&1 || { cat "$tmp/said"; fail "a metadata-only run needed the media module"; }
grep -q "resize-media.so" "$tmp/said" && fail "a metadata-only run tried to load the media module"
if "$bin/Resize" -vw:128 "$tmp/o.mp4" "$tmp/none.mp4" >"$tmp/said" 2>&1; then fail "a re-encode without the media module succeeded"; fi
grep -q "resize-media.so" "$tmp/said" || { cat "$tmp/said"; fail "a re-encode without the media module does not name it"; }
ls "$tmp" | grep -q "none" && fail "a failed re-encode left a file: $(ls "$tmp")"
exit $((failures > 0))

#!/bin/bash
# The Debian package of the build (what make deb makes), unpacked into a
# temporary root: it holds the three commands, the converter behind Resize
# and the man pages, depends on the libraries the commands link, and the
# commands work from there.
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
exit $((failures > 0))

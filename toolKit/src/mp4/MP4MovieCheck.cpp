#include "MP4MovieCheck.h"

#include <algorithm>
#include <cstdio>

namespace MP4 {

namespace {

// The sample tables of one track are read whole; a table beyond this is not
// something a camera or an encoder writes.
constexpr uint64_t kMaxTable = 256ull << 20;

std::string pathOf(const BOX& box)
{
    std::string path = box.typeText();
    for (const BOX* p = box.parent; p != nullptr && p->depth >= 0; p = p->parent)
        path = p->typeText() + "." + path;
    return path;
}

std::string number(uint64_t n)
{
    return std::to_string(n);
}

class Check {
public:
    Check(const Container& c, GLTK::FileIO& f) : movie(c), file(f), fileLength(c.length()) {}

    void nesting(const NestedBox& box, uint64_t end)
    {
        const std::string name = box.depth < 0 ? "the file" : pathOf(box);
        if (!box.childrenRead || box.childrenAt > end) {
            problem(name + " is too short for its own fields");
            return;
        }
        uint64_t at = box.childrenAt;
        for (const BOX* child : box.children) {
            if (child->start != at || child->size < child->headerSize() || child->end() < child->start ||
                child->end() > end) {
                problem(pathOf(*child) + " at " + number(child->start) + " (" + number(child->size) +
                        " bytes) runs past the end of " + name + " at " + number(end));
                return;
            }
            at = child->end();
            const NestedBox* nested = child->as<NestedBox>();
            if (nested != nullptr && nested->hasChild())
                nesting(*nested, child->end());
        }
        // QuickTime ends a udta with four zero bytes at times.
        if (at != end && !(box.is("udta") && end - at == 4 && zeros(at, 4)))
            problem(number(end - at) + " bytes at " + number(at) + " in " + name + " are not a box");
    }

    void chunks()
    {
        std::vector<std::pair<uint64_t, uint64_t>> media;
        for (const BOX* b : movie.root->children)
            if (b->is("mdat"))
                media.push_back({b->payloadStart(), std::min(b->end(), fileLength)});
        movie.find<TRAK>("moov.trak", [&](TRAK& trak) {
            if (const STBL* stbl = trak.first<STBL>("mdia.minf.stbl"))
                chunks(*stbl, media, "the media data");
            return true;
        });
        const BOX* qadt = movie.spatialChild("uuid.QADT");
        const BOX* qatr = movie.spatialChild("uuid.QATR");
        if (qadt != nullptr && qatr != nullptr)
            if (const STBL* stbl = qatr->as<NestedBox>()->first<STBL>("mdia.minf.stbl"))
                chunks(*stbl, {{qadt->payloadStart(), std::min(qadt->end(), fileLength)}}, "the QADT payload");
    }

    void spatialPointer()
    {
        const BOX* qdt9 = movie.first("moov.udta.QDT9");
        if (qdt9 == nullptr || qdt9->size < 24)
            return;
        uint64_t pointer[2] = {};
        if (!read(qdt9->payloadStart(), 16, [&](const uint8_t* p) {
                pointer[0] = be64(p);
                pointer[1] = be64(p + 8);
            }))
            return;
        const BOX* qadt = movie.spatialChild("uuid.QADT");
        const uint64_t want[2] = {qadt ? qadt->start : 0, qadt ? qadt->size : 0};
        if (pointer[0] != want[0] || pointer[1] != want[1])
            problem("QDT9 points at " + number(pointer[0]) + " (" + number(pointer[1]) + " bytes), " +
                    (qadt ? "the spatial data's QADT box is at " + number(want[0]) + " (" + number(want[1]) + " bytes)"
                          : std::string("and there is no spatial data")));
    }

    std::vector<std::string> problems;

private:
    void problem(std::string text) { problems.push_back(std::move(text)); }

    // Reads n bytes at an offset and hands them to use; false (after a
    // problem line) when they are not in the file.
    template <class Use> bool read(uint64_t at, uint64_t n, Use use)
    {
        std::vector<uint8_t> bytes(n);
        if (at > fileLength || n > fileLength - at || !file.seek_set(static_cast<int64_t>(at)) ||
            (n > 0 && file.read(bytes.data(), n) != n)) {
            problem(number(n) + " bytes at " + number(at) + " cannot be read");
            return false;
        }
        use(bytes.data());
        return true;
    }

    bool zeros(uint64_t at, uint64_t n)
    {
        bool all = false;
        read(at, n, [&](const uint8_t* p) { all = std::all_of(p, p + n, [](uint8_t b) { return b == 0; }); });
        return all;
    }

    // One field of each entry of a full box's table: `fixed` bytes of
    // fields after the version and flags, then the count, then the entries
    // of `stride` bytes, whose field of `width` bytes (4 or 8) at `field` is
    // taken.
    bool table(const BOX& box, uint64_t fixed, unsigned stride, unsigned field, unsigned width,
               std::vector<uint64_t>& out)
    {
        const uint64_t at = box.payloadStart() + 4;
        uint64_t count = 0;
        if (!read(at, fixed + 4, [&](const uint8_t* p) { count = be32(p + fixed); }))
            return false;
        const uint64_t bytes = count * stride;
        const uint64_t entries = at + fixed + 4;
        if (bytes > kMaxTable || entries + bytes > box.reach) {
            problem(pathOf(box) + " is shorter than its " + number(count) + " entries");
            return false;
        }
        out.resize(count);
        return read(entries, bytes, [&](const uint8_t* p) {
            for (size_t i = 0; i < out.size(); ++i)
                out[i] = width == 8 ? be64(p + stride * i + field) : be32(p + stride * i + field);
        });
    }

    void chunks(const STBL& stbl, const std::vector<std::pair<uint64_t, uint64_t>>& areas, const char* where)
    {
        const BOX* offsetsBox = stbl.first<STCO>("stco");
        const bool wide = offsetsBox == nullptr;
        if (wide)
            offsetsBox = stbl.first<STCO>("co64");
        const BOX* sizesBox = stbl.first<STSZ>("stsz");
        const BOX* runsBox = stbl.first<STSC>("stsc");
        if (offsetsBox == nullptr)
            return; // no chunk is named: nothing can lie outside
        if (sizesBox == nullptr || runsBox == nullptr) {
            problem(pathOf(stbl) + " names chunks without their samples (no stsz or stsc)");
            return;
        }
        std::vector<uint64_t> offsets, sizes, runStarts, runSamples;
        // stsz: one size for every sample (and no table), or 0 and a table.
        uint32_t sampleSize = 0;
        uint64_t samples = 0;
        if (!read(sizesBox->payloadStart() + 4, 8, [&](const uint8_t* p) {
                sampleSize = be32(p);
                samples = be32(p + 4);
            }))
            return;
        // stsc entries: first chunk, samples per chunk, description.
        if (!table(*offsetsBox, 0, wide ? 8 : 4, 0, wide ? 8 : 4, offsets) ||
            (sampleSize == 0 && !table(*sizesBox, 4, 4, 0, 4, sizes)) || !table(*runsBox, 0, 12, 4, 4, runSamples) ||
            !table(*runsBox, 0, 12, 0, 4, runStarts))
            return;
        uint64_t k = 0;
        size_t run = 0;
        for (size_t i = 0; i < offsets.size(); ++i) {
            while (run + 1 < runStarts.size() && runStarts[run + 1] <= i + 1)
                ++run;
            const uint64_t per = runStarts.empty() || runStarts[0] > i + 1 ? 0 : runSamples[run];
            // A last chunk may claim more samples than are left (the camera's
            // cut spatial track gives its byte count there): the samples stsz
            // lists are the ones that count.
            const uint64_t n = std::min(per, samples - k);
            uint64_t bytes = 0;
            for (uint64_t s = 0; s < n; ++s)
                bytes += sampleSize != 0 ? sampleSize : sizes[k + s];
            k += n;
            const uint64_t from = offsets[i], to = from + bytes;
            const bool inside = std::any_of(areas.begin(), areas.end(), [&](const auto& a) {
                return a.first <= from && to >= from && to <= a.second;
            });
            if (!inside) {
                problem(pathOf(*offsetsBox) + ": a chunk at " + number(from) + ".." + number(to) + " lies outside " +
                        where);
                return;
            }
        }
        if (k != samples)
            problem(pathOf(stbl) + ": the chunks hold " + number(k) + " samples, stsz lists " + number(samples));
    }

    const Container& movie;
    GLTK::FileIO& file;
    const uint64_t fileLength;
};

} // namespace

std::vector<std::string> problemsOf(const Container& movie)
{
    if (!movie.root)
        return {"not a movie"};
    std::vector<std::string> problems;
    const bool opened = movie.open([&](GLTK::FileIO& f) {
        Check check(movie, f);
        check.nesting(*movie.root, movie.length());
        if (check.problems.empty()) {
            check.chunks();
            check.spatialPointer();
        }
        problems = std::move(check.problems);
    });
    if (!opened)
        problems.push_back("the movie cannot be read again");
    return problems;
}

} // namespace MP4

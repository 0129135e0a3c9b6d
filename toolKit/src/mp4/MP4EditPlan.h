#pragma once
// The output movie as an edit plan: an ordered list of pieces, each a byte
// range of an input file or new bytes held in memory. Every metadata edit
// changes the plan, not a file. When the plan is final it is written in
// named steps: the pieces are laid out, the overlays (new box sizes, patched
// bytes, every absolute offset converted to where its byte lands) are laid
// over the input ranges, the plan chooses between editing its movie in place
// and writing a copy, the pieces are written once, and the result is read
// back whole before it is kept.
//
// Input 0 is the movie being edited. Another input (the camera's own movie,
// when the edited one is a fresh encode) can lend byte ranges too; offsets
// held in its boxes name its own bytes and are converted the same way. The
// MP4 layer registers the chunk offsets of every track; offsets of the
// camera's own boxes (the spatial-data pointer) are registered by the camera
// layer through registerOffsets.
#include "ByteArray.h"
#include "MP4Box.h"

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace GLTK {
class PendingFile;
}

namespace MP4 {

class Container;

class EditPlan {
public:
    // A byte of an input file.
    struct Position {
        unsigned file = 0;
        uint64_t offset = 0;
    };
    // Absolute file offsets held in the output: `count` big-endian values of
    // `width` bytes (4 or 8) from `at` on. Each value of a table names a byte
    // of input `file` as it stands; a pointer instead names `target` plus
    // `addend`, whatever it held before.
    struct Offsets {
        uint64_t at = 0;
        uint64_t count = 0;
        unsigned width = 4;
        unsigned file = 0;
        bool pointer = false;
        Position target;
        int64_t addend = 0;
        const char* owner = ""; // the box that holds them, for messages
    };
    // A piece of the output: a byte range of an input, or new bytes with the
    // offsets they hold (`at` counted from the start of the bytes).
    struct Piece {
        unsigned file = 0;
        uint64_t start = 0, length = 0;
        std::shared_ptr<ByteArray> bytes;
        std::vector<Offsets> offsets;
        uint64_t size() const { return bytes ? bytes->length : length; }
    };
    using Pieces = std::vector<Piece>;
    static Piece range(unsigned file, uint64_t start, uint64_t length);
    static Piece bytes(ByteArray data, std::vector<Offsets> offsets = {});

    // Where an input byte lands in the output.
    using Where = std::function<uint64_t(unsigned file, uint64_t offset)>;
    // Converts the values of o, held at `values`, to the places `where` gives
    // their bytes (a pointer: its target's place plus the addend). False,
    // after one line naming the box, when a value would not fit its width.
    static bool convertOffsets(const Offsets& o, uint8_t* values, const Where& where);

    // The identity over the movie (parsed already): its top-level boxes in
    // file order.
    explicit EditPlan(const Container& movie);
    EditPlan(const EditPlan&) = delete;
    EditPlan& operator=(const EditPlan&) = delete;
    // Another input whose bytes the output may take (parsed already, and
    // kept open until the plan is written); returns its number.
    unsigned addInput(const Container& other);

    // Edits of the movie's boxes (input 0), named for the failure line. An
    // edit is refused (false, after that line with the box and the reason)
    // when its box does not lie whole inside its parents and the file, or
    // runs into an earlier edit.
    bool replace(const wchar_t* name, const BOX& box, Pieces with);
    bool remove(const wchar_t* name, const BOX& box);
    // New pieces at input offset `at` inside the box `into` (between two of
    // its children or behind the last); `into` and its parents grow.
    bool insert(const wchar_t* name, const BOX& into, uint64_t at, Pieces what);
    // The top-level boxes in a new order; boxes left out are dropped.
    void reorder(const std::vector<const BOX*>& topLevel);
    // New top-level pieces behind everything else.
    void append(Pieces what);
    // Bytes of an input rewritten, wherever they land (same length).
    void patch(unsigned file, uint64_t at, ByteArray bytes);
    // The same for bytes that take long to make (the maker thumbnail):
    // `make` starts on a thread of its own at once, and its bytes (exactly
    // `length` of them) are laid over the output once the rest is written,
    // so that they are made while the media is copied (an output that is
    // input 0 waits for them first). Bytes of a length other than `length`
    // are left out.
    void patchLater(unsigned file, uint64_t at, uint64_t length, std::function<ByteArray()> make);
    // Offsets held at an input place, converted wherever they land; they take
    // the place of whatever was registered there.
    void registerOffsets(unsigned file, const Offsets& o);
    // Forgets the offsets registered at that input place: its bytes are
    // carried as they stand (or as patched).
    void dropOffsets(unsigned file, uint64_t at);

    // The box of input 0 is still in the output: neither it nor a box around
    // it is replaced, removed or dropped.
    bool keeps(const BOX& box) const;

    // Writes the output once: into a temporary file beside outputPath that is
    // renamed over it once it has been read back whole, or, when outputPath
    // is input 0 and few of its bytes move, by rewriting only what changed in
    // place (and reading it back). A refused plan writes nothing; a failed or
    // cancelled write, or an output that is not whole, leaves no temporary
    // file and outputPath as it was (a movie edited in place is then
    // damaged: only the run's own fresh encode is). Prints one line on
    // failure. A `reserved` outputPath is an empty file the caller made for
    // this output and removes should it not be kept (the temporary file of
    // its GLTK::PendingFile): the plan writes straight into it.
    bool write(const std::wstring& outputPath, bool reserved = false);

    // Where a byte of an input lands in the output (valid after write).
    uint64_t map(unsigned file, uint64_t offset) const;
    // Bytes the last write put on disk, and whether it worked in place.
    uint64_t bytesWritten = 0;
    bool wroteInPlace = false;

private:
    struct Input {
        const Container* movie;
        uint64_t length;
        std::vector<Offsets> offsets; // registered in its boxes
    };
    struct Splice {
        uint64_t at = 0, removed = 0;
        Pieces content;
        const BOX* top = nullptr;   // the top-level box it lies in
        const BOX* box = nullptr;   // the box replaced or removed (null: an insertion)
        int depth = 0;              // of the box an insertion goes into
        unsigned seq = 0;
    };
    // One piece placed in the output.
    struct Placed {
        Piece piece;
        uint64_t out = 0;
    };
    // New bytes over an input's ranges, by input and offset.
    using Overlays = std::map<unsigned, std::map<uint64_t, ByteArray>>;

    const std::wstring& pathOf(unsigned file) const;
    void registerChunkOffsets(unsigned file, const Container& c);
    bool refuse(const wchar_t* name, const BOX& box, const wchar_t* reason) const;
    bool fitsAsEdit(const wchar_t* name, const BOX& box) const;
    void grow(const BOX& box, int64_t delta);
    bool addSplice(const wchar_t* name, Splice s);

    // The steps of write.
    void layOut();
    bool layOverlays(Overlays& overlays);
    bool resizeBoxes(Overlays& overlays);
    bool convertAllOffsets(Overlays& overlays);
    bool chooseInPlace(bool outputIsInput0, const Overlays& overlays);
    bool writePieces(GLTK::FileIO& dst, const Overlays& overlays);
    bool copyRange(GLTK::FileIO& dst, const Placed& p, const std::map<uint64_t, ByteArray>& layer, int& error);
    bool writeLatePatches(GLTK::FileIO& dst);
    // The written movie read back; false, after a line naming the first
    // problem, when it is not whole.
    static bool isWhole(const std::wstring& path);

    std::vector<Input> inputs;
    std::vector<const BOX*> top;       // input 0's top-level boxes, in output order
    uint64_t tailStart = 0;            // bytes of input 0 after its last box
    Pieces appended;
    std::vector<Splice> splices;
    std::vector<const BOX*> gone;      // replaced or removed boxes
    std::map<const BOX*, int64_t> deltas;
    std::vector<std::pair<Position, ByteArray>> patches;
    struct LatePatch {
        Position at;
        uint64_t length = 0;
        std::future<ByteArray> bytes;
    };
    std::vector<LatePatch> latePatches;
    std::vector<Placed> placed;
    // Where each placed input range starts, in and out, by input.
    struct Span {
        uint64_t start, out;
    };
    std::vector<std::vector<Span>> spans;
    uint64_t total = 0;
    unsigned nextSeq = 0;
    // Damage of the source already reported (null: bytes behind the last box).
    std::set<const BOX*> cutShortNoted;
};

} // namespace MP4

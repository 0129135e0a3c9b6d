#include "BoxBytes.h"
#include "GLTKwchar.h"
#include "MP4Container.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;

namespace {

std::wstring w(const fs::path& p) { return GLTK::wchar::mbs2wcs(p.string()); }

std::vector<uint64_t> offsets(MP4::Container& c)
{
    std::vector<uint64_t> r;
    c.open([&](GLTK::FileIO& f) {
        MP4::BinFile v(f);
        c.find("moov.trak.mdia.minf.stbl.stco", [&](MP4::BOX& b) {
            auto& t = static_cast<MP4::STCO&>(b);
            v.seek_set(t.firstEntry);
            for (uint32_t i = 0; i < t.entryCount; ++i)
                r.push_back(v.read32());
            return true;
        });
        c.find("moov.trak.mdia.minf.stbl.co64", [&](MP4::BOX& b) {
            auto& t = static_cast<MP4::STCO&>(b);
            v.seek_set(t.firstEntry);
            for (uint32_t i = 0; i < t.entryCount; ++i)
                r.push_back(v.read64());
            return true;
        });
    });
    return r;
}

std::vector<std::string> top(const MP4::Container& c)
{
    std::vector<std::string> r;
    for (auto* b : c.root->children)
        r.push_back(b->typeText());
    return r;
}

// ftyp, mdat, moov with two tracks: one stco, one co64.
Bytes mdatFirstMovie(uint32_t near32 = 0)
{
    Bytes ftyp = box("ftyp", text("isomiso2"));
    Bytes mdat = box("mdat", Bytes(1000, 0x5A));
    uint32_t base = uint32_t(ftyp.size() + 8);
    Bytes moov = box("moov", cat({trak(tkhd(960, 480), stco({base, base + 100, near32 ? near32 : base + 200})),
                                  trak(tkhd(0, 0), co64({base + 300, 0xFFFFFFFFull + 10}))}));
    return cat({ftyp, mdat, moov});
}

TEST(ContainerEdit, MoovFirstMovesMoovAndShiftsEveryTable)
{
    TempDir dir;
    Bytes file = mdatFirstMovie(0xFFFFFF00u);
    writeFile(dir / "m.mp4", file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    uint64_t moovSize = c.moov->size;
    std::vector<uint64_t> before = offsets(c);
    ASSERT_TRUE(c.moovFirst());
    EXPECT_EQ(top(c), (std::vector<std::string>{"ftyp", "moov", "mdat"}));
    std::vector<uint64_t> after = offsets(c);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < before.size(); ++i) {
        uint64_t expect = before[i] + moovSize;
        if (i < 3)
            expect &= 0xFFFFFFFFu; // 32-bit tables wrap, never promoted
        EXPECT_EQ(after[i], expect) << i;
    }
    EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));
    // The media bytes came along unchanged.
    Bytes out = readFile(dir / "m.mp4");
    EXPECT_EQ(out.size(), file.size());
    EXPECT_EQ(Bytes(out.end() - 1000, out.end()), Bytes(1000, 0x5A));
    // Already moov-first: nothing is written.
    Bytes again = readFile(dir / "m.mp4");
    EXPECT_FALSE(c.moovFirst());
    EXPECT_EQ(readFile(dir / "m.mp4"), again);
}

TEST(ContainerEdit, OutputPathLeavesTheSourceAlone)
{
    TempDir dir;
    Bytes file = mdatFirstMovie();
    writeFile(dir / "src.mp4", file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "src.mp4")));
    c.outputPath = w(dir / "out.mp4");
    ASSERT_TRUE(c.moovFirst());
    EXPECT_EQ(readFile(dir / "src.mp4"), file);
    EXPECT_EQ(c.path, w(dir / "out.mp4"));
    EXPECT_FALSE(c.outputPath.has_value());
    EXPECT_EQ(top(c), (std::vector<std::string>{"ftyp", "moov", "mdat"}));
}

TEST(ContainerEdit, FailedCopyReportsAndLeavesNoTemporaryFile)
{
    TempDir dir;
    Bytes file = mdatFirstMovie();
    writeFile(dir / "m.mp4", file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    testing::internal::CaptureStdout();
    bool ok = c.modifyContainer(
        L"breaks", [](MP4::BinFile& s, MP4::BinFile& d, uint64_t& split) {
            s.copyTo(d, 100);
            split = 0;
            return false;
        },
        [](MP4::Container&, MP4::BinFile&) { return true; }, [](MP4::Container&, MP4::BinFile&) { return true; });
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(ok);
    EXPECT_NE(out.find("Container::modifyContainer::breaks("), std::string::npos);
    EXPECT_NE(out.find(".tmp.mp4) failed."), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));
    EXPECT_EQ(readFile(dir / "m.mp4"), file);
    EXPECT_NE(c.moov, nullptr); // re-parsed from the unchanged file
}

TEST(ContainerEdit, FullDiskDuringCopyLeavesTheFileAndNoTemporary)
{
    TempDir dir;
    Bytes file = mdatFirstMovie();
    file.resize(file.size()); // as is
    writeFile(dir / "m.mp4", file);
    pid_t pid = fork();
    if (pid == 0) {
        // In the child: files may not grow past 600 bytes.
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {600, 600};
        setrlimit(RLIMIT_FSIZE, &lim);
        MP4::Container c;
        if (!c.attach(w(dir / "m.mp4")))
            _exit(3);
        _exit(c.moovFirst() ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(readFile(dir / "m.mp4"), file);
    EXPECT_FALSE(fs::exists(dir / "m.mp4.tmp.mp4"));
}

TEST(ContainerEdit, RefusesToWriteOverItsOwnSource)
{
    TempDir dir;
    Bytes file = mdatFirstMovie();
    writeFile(dir / "m.mp4", file);
    fs::create_hard_link(dir / "m.mp4", dir / "link.mp4");
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    c.outputPath = w(dir / "link.mp4");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(c.moovFirst());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile(dir / "m.mp4"), file);
}

TEST(ContainerEdit, ReplaceUdtaReplacesOrAppendsAndFixesMoovSize)
{
    TempDir dir;
    Bytes moov = box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), trak(tkhd(960, 480), stco({1})),
                                  box("udta", box("QMKN", Bytes(10, 1)))}));
    Bytes file = cat({box("ftyp", text("isom")), box("mdat", Bytes(50, 9)), moov});
    writeFile(dir / "m.mp4", file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    Bytes udta = box("udta", cat({box("QMKN", Bytes(30, 2)), box("@mod", text("NARVI ORVEX V"))}));
    ByteArray bytes(udta.data(), udta.size());
    ASSERT_TRUE(c.replaceUdta(0, bytes));
    EXPECT_EQ(c.moov->size, moov.size() - 26 + udta.size()); // old udta: 8 + 18 bytes
    EXPECT_EQ(c.moov->end(), fs::file_size(dir / "m.mp4"));
    ASSERT_NE(c.first("moov.udta.@mod"), nullptr);
    EXPECT_EQ(offsets(c), (std::vector<uint64_t>{1})); // media before moov: unchanged

    // Without a udta the new one is appended at the end of moov.
    Bytes noUdta = cat({box("ftyp", text("isom")), box("mdat", Bytes(50, 9)),
                        box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), trak(tkhd(960, 480), stco({1})),
                                         box("free", Bytes(4, 0))}))});
    writeFile(dir / "n.mp4", noUdta);
    MP4::Container d;
    ASSERT_TRUE(d.attach(w(dir / "n.mp4")));
    ASSERT_TRUE(d.replaceUdta(0, bytes));
    auto& m = static_cast<MP4::NestedBox&>(*d.moov);
    EXPECT_TRUE(m.children.back()->is("udta"));
    EXPECT_EQ(d.moov->end(), fs::file_size(dir / "n.mp4"));
}

TEST(ContainerEdit, UpdateTimeStampWritesEveryHeader)
{
    TempDir dir;
    Bytes moov = box("moov", cat({fullbox("mvhd", 0, Bytes(96, 0)), trak(tkhd(960, 480, 5), stco({1})),
                                  trak(tkhd(0, 0, 6), stco({2}))}));
    writeFile(dir / "m.mp4", moov);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    ASSERT_TRUE(c.updateTimeStamp(0x12345678));
    EXPECT_EQ(static_cast<MP4::MVHD*>(c.first("moov.mvhd"))->creationTime, 0x12345678u);
    c.find("moov.trak.tkhd", [](MP4::BOX& b) {
        EXPECT_EQ(static_cast<MP4::TKHD&>(b).creationTime, 0x12345678u);
        return true;
    });
}

TEST(ContainerEdit, InsertBoxAfterAndInsteadOfAnAnchor)
{
    TempDir dir;
    Bytes file = cat({box("ftyp", text("isom")), box("free", Bytes(4, 0)), box("mdat", Bytes(8, 1))});
    writeFile(dir / "m.mp4", file);
    MP4::Container c;
    ASSERT_TRUE(c.attach(w(dir / "m.mp4")));
    Bytes added = box("skip", Bytes(2, 3));
    auto write = [&](MP4::BinFile& f) { return f.write(added.data(), added.size()) == added.size(); };
    auto none = [](MP4::Container&, MP4::BinFile&) { return true; };
    ASSERT_TRUE(c.insertBox(L"t", *c.root->children[1], false, write, none, none));
    EXPECT_EQ(top(c), (std::vector<std::string>{"ftyp", "free", "skip", "mdat"}));
    ASSERT_TRUE(c.insertBox(L"t", *c.root->children[1], true, write, none, none));
    EXPECT_EQ(top(c), (std::vector<std::string>{"ftyp", "skip", "skip", "mdat"}));
}

} // namespace

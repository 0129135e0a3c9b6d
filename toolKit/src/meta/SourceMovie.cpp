#include "SourceMovie.h"

#include "CameraModel.h"
#include "GLTKwchar.h"
#include "MP4Headers.h"
#include "MP4SampleTables.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

bool SourceMovie::open(const std::wstring& path, std::wstring& problem)
{
    auto message = [](int error) { return GLTK::wchar::mbs2wcs(std::strerror(error)); };
    // Looked at before it is opened, so that a FIFO cannot hold the run.
    struct stat st {};
    if (::stat(GLTK::FileIO::toNative(path).c_str(), &st) != 0) {
        problem = message(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        problem = message(EISDIR);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        problem = L"not an MP4 movie";
        return false;
    }
    if (!container.attach(path)) {
        problem = message(errno);
        return false;
    }
    // A movie is a file of boxes with a movie box (moov) among them; one
    // that begins as an MP4 but has none was most likely cut short.
    if (container.moov == nullptr) {
        const auto& top = container.root->children;
        problem = !top.empty() && top.front()->is("ftyp") ? L"not an MP4 movie (no moov box)" : L"not an MP4 movie";
        return false;
    }
    // What can be read is read, also from a movie that is refused.
    metadata.read(container);
    newerCamera = CameraModel::isNewer(metadata.modelCode);
    readStreams();
    if (!container.moov->whole())
        problem = L"damaged movie box: it runs past the end of the file";
    else if (container.videoTrack == nullptr)
        problem = L"damaged movie box: no video track can be read";
    return problem.empty();
}

void SourceMovie::readStreams()
{
    if (container.first<MP4::AVC1>("moov.trak.mdia.minf.stbl.stsd.avc1") != nullptr) {
        codec = 1;
        codecEntry = "avc1";
    }
    container.find<MP4::STSD>("moov.trak.mdia.minf.stbl.stsd", [&](MP4::STSD& stsd) {
        for (const MP4::BOX* e : stsd.children)
            if (e->is("hvc1") || e->is("hev1")) {
                codec = 2;
                codecEntry = e->typeText();
            }
        return true;
    });
    if (const MP4::MVHD* m = container.first<MP4::MVHD>("moov.mvhd"))
        duration = static_cast<float>(m->seconds());
    container.find<MP4::TRAK>("moov.trak", [&](MP4::TRAK& t) {
        const auto* tkhd = t.first<MP4::TKHD>("tkhd");
        const auto* stsz = t.first<MP4::STSZ>("mdia.minf.stbl.stsz");
        const bool video = tkhd != nullptr && tkhd->width >= 1;
        const float rate = static_cast<float>(stsz ? stsz->totalBytes : 0) * 8.0f / duration;
        if (video && videoBitRate == 0)
            videoBitRate = rate;
        else if (audioBitRate == 0)
            audioBitRate = rate;
        else
            ++extraTracks;
        return true;
    });
    // The picture size and frame rate, as the video track's sample entry
    // and tables give them: nothing needs decoding to know them.
    if (MP4::TRAK* v = container.videoTrack) {
        if (const auto* stsd = v->first<MP4::STSD>("mdia.minf.stbl.stsd"))
            for (const MP4::BOX* e : stsd->children)
                if (const auto* entry = dynamic_cast<const MP4::VisualSampleEntry*>(e); entry && width == 0) {
                    width = entry->width;
                    height = entry->height;
                }
        const auto* mdhd = v->first<MP4::MDHD>("mdia.mdhd");
        const auto* stsz = v->first<MP4::STSZ>("mdia.minf.stbl.stsz");
        if (mdhd != nullptr && stsz != nullptr && mdhd->duration > 0 && mdhd->timeScale > 0)
            frameRate = static_cast<float>(double(stsz->sampleCount) * mdhd->timeScale / double(mdhd->duration));
    }
}

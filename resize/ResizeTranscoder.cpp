#include "ResizeTranscoder.h"

#include "GLTKMediaModule.h"

uint32_t (*ResizeTranscoder::reencode)(const Option& option, const std::wstring& into) = nullptr;

uint32_t ResizeTranscoder::trim(const Option& option, const std::wstring& into)
{
    if (!GLTK::MediaModule::load() || reencode == nullptr)
        return 0;
    return reencode(option, into);
}

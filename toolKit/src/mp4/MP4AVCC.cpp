#include "MP4Box.h"

#include "GLTKConsole.h"

namespace MP4 {

void AVCC::dump() const
{
    GLTK::Console::out(L"MP4: %ls<%ls record=%llu >\n", indent().c_str(), basicTag().c_str(),
                       static_cast<unsigned long long>(record.length));
}

} // namespace MP4

// One libFuzzer harness; FUZZ_TARGET names the entry function of
// FuzzTargets.h that it drives.
#include "FuzzTargets.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    // The parsers report on standard output; libFuzzer reports on standard
    // error, which stays.
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    // Paths that the option parser probes resolve inside an empty folder.
    char folder[] = "/tmp/resize-fuzz-XXXXXX";
    if (mkdtemp(folder) == nullptr || chdir(folder) != 0)
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::FUZZ_TARGET(data, size);
}

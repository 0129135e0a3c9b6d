// Every input that once broke a fuzzing harness is kept under
// tests/fuzz/regressions/<harness>/ and replayed here through the harness's
// own entry function: none may crash, read out of bounds or break an
// invariant again.
#include "../fuzz/FuzzTargets.h"
#include "TestSupport.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace testsupport;

TEST(FuzzRegressions, EveryKeptInputRunsCleanly)
{
    const fs::path root = sourceDir() / "tests" / "fuzz" / "regressions";
    size_t replayed = 0;
    for (const fuzz::Target& target : fuzz::kTargets) {
        const fs::path dir = root / target.name;
        if (!fs::is_directory(dir))
            continue;
        std::vector<fs::path> inputs;
        for (const auto& e : fs::directory_iterator(dir))
            if (e.is_regular_file())
                inputs.push_back(e.path());
        std::sort(inputs.begin(), inputs.end());
        for (const fs::path& input : inputs) {
            SCOPED_TRACE(input.string());
            const std::vector<uint8_t> bytes = readFile(input);
            testing::internal::CaptureStdout();
            const int result = target.run(bytes.data(), bytes.size());
            testing::internal::GetCapturedStdout();
            // The option harness refuses inputs with paths; a kept input is
            // one it ran.
            EXPECT_EQ(result, 0);
            ++replayed;
        }
    }
    RecordProperty("replayed", static_cast<int>(replayed));
    std::printf("replayed %zu kept inputs\n", replayed);
}
